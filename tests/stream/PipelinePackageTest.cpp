// A whole package pipeline through the three exported thread functions with the real stages:
// nginx -> HTTP source -> LZMA2 decoder -> tar sink. The archive is the tar fixture's GNU tar
// archive; the extracted tree must match its manifest byte for byte, with names and times.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "PipelineFakes.h"
#include "TarTestSupport.h"
#include "stream/HTTPStreamImp.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/TARStreamWriterImp.h"
#include "support/Md5.h"
#include "support/TestServers.h"
#include "support/TestSupport.h"

using fakes::EventRecorder;
using fakes::FakeJob;
using fakes::FakeRequest;
using fakes::kTimedOut;
using fakes::linkSpec;
using fakes::StageThread;
namespace msg = qvdlm::msg;
namespace event = qvdlm::event;

namespace {

struct ManifestEntry {
    char kind = 0;
    std::string path;
    uint64_t size = 0;
    std::string md5;
    int64_t mtime = 0;
    bool readOnly = false;
    std::string target;
};

std::wstring workFolder(const std::wstring& name)
{
    std::wstring root = qvtest::env(L"QVDLM_TEST_WORK");
    if (!root.empty() && root[0] == L'/') {
        root = L"Z:" + root;
        std::replace(root.begin(), root.end(), L'/', L'\\');
    }
    return root + L"\\" + name;
}

std::vector<ManifestEntry> manifest()
{
    std::string text;
    EXPECT_TRUE(qvtest::readFile(workFolder(L"tar-archives") + L"\\gnu.manifest", text));
    std::vector<ManifestEntry> out;
    std::stringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> f;
        std::stringstream fields(line);
        std::string field;
        while (std::getline(fields, field, '\t'))
            f.push_back(field);
        if (f.size() < 2)
            continue;
        ManifestEntry e;
        e.kind = f[0][0];
        e.path = f[1];
        if (e.kind == 'F' && f.size() == 6) {
            e.size = std::stoull(f[2]);
            e.md5 = f[3];
            e.mtime = std::stoll(f[4]);
            e.readOnly = f[5] == "1";
        } else if (e.kind == 'S' && f.size() == 3) {
            e.target = f[2];
        }
        out.push_back(e);
    }
    return out;
}

uint64_t servedSize(const std::wstring& name)
{
    std::string bytes;
    EXPECT_TRUE(qvtest::readFile(qvtest::wwwDir() + L"\\" + name, bytes)) << qvtest::narrow(name);
    return bytes.size();
}

// The three real stages around a fake job.
struct PackageRig {
    FakeRequest request;
    FakeJob job{request};
    EventRecorder events;
    qvtest::ScratchDir dest{L"pipeline-package"};
    std::vector<std::unique_ptr<TargetImp>> targets;
    std::unique_ptr<tartest::LinkRecorder> links;

    explicit PackageRig(const std::vector<std::wstring>& blocks)
    {
        request.lzma = true;
        request.blockUrls.clear();
        request.blockLengths.clear();
        for (const auto& name : blocks) {
            request.blockUrls.push_back(qvtest::nginxUrl(name));
            request.blockLengths.push_back(static_cast<int64_t>(servedSize(name)));
        }
        request.contentLength = request.blockLengths.front();

        auto* source = new HTTPStreamImp(request.blockUrls.front().c_str(), 0, 0);
        add(source, 1, L"Http");
        add(new LZMA2StreamWriterImp, 2, L"Lzma");
        add(new TARStreamWriterImp(dest.path().c_str()), 1, L"xTar");
        // Symbolic links cannot be observed under Wine: record them (after the sink chose its call).
        links = std::make_unique<tartest::LinkRecorder>();
        source->reconnect(); // as the job opens its source; a failure is left to the retry cycle
        // As the manager does: an error event aborts the download (so a missing server fails the
        // test instead of retrying for ever).
        events.onEvent = [this](const fakes::RecordedEvent& e) {
            if (e.kind == event::Error) {
                job.state = qvdlm::state::Aborting;
                job.stop = true;
            }
        };
    }
    void add(Stream* stage, uint32_t count, const wchar_t* name)
    {
        auto target = std::make_unique<TargetImp>(&job, targets.empty() ? nullptr : targets.back().get());
        const LinkSpec spec = linkSpec(count, kLinkBufferSize, name);
        EXPECT_TRUE(target->configure(stage, &spec));
        EXPECT_TRUE(target->createBuffers());
        targets.push_back(std::move(target));
    }
    std::vector<uint32_t> run()
    {
        StageThread reader(&readerStreamThread, targets[0].get());
        StageThread middle(&readerWriterStreamThread, targets[1].get());
        StageThread writer(&writerStreamThread, targets[2].get());
        return {reader.join(60000), middle.join(60000), writer.join(60000)};
    }

    void expectTree()
    {
        const auto expected = manifest();
        ASSERT_FALSE(expected.empty());
        const auto recorded = links->calls();
        const auto tree = tartest::readTree(dest.path());
        size_t onDisk = 0;
        for (const ManifestEntry& e : expected) {
            SCOPED_TRACE(e.path);
            if (e.kind == 'S') {
                std::wstring suffix = L"\\" + qvtest::widen(e.path);
                std::replace(suffix.begin(), suffix.end(), L'/', L'\\');
                EXPECT_TRUE(std::any_of(recorded.begin(), recorded.end(), [&](const auto& c) {
                    return c.first.size() >= suffix.size() &&
                           c.first.compare(c.first.size() - suffix.size(), suffix.size(), suffix) == 0;
                })) << "no link made";
                continue;
            }
            ++onDisk;
            const auto found = tree.find(e.path);
            ASSERT_NE(found, tree.end()) << "missing";
            EXPECT_EQ(e.kind == 'D', found->second.folder);
            if (e.kind == 'F') {
                EXPECT_EQ(e.size, found->second.content.size());
                EXPECT_EQ(e.md5, qvtest::md5Hex(found->second.content));
                EXPECT_EQ(e.mtime, found->second.mtime);
                EXPECT_EQ(e.readOnly, found->second.readOnly);
            }
        }
        EXPECT_EQ(onDisk, tree.size()) << "extra entries in the destination";
    }
};

} // namespace

TEST(PackagePipeline, WholePackageExtractsAsTheArchiveWasMade)
{
    PackageRig rig({L"pipeline-gnu.tar.lzma2"});
    const auto codes = rig.run();
    EXPECT_EQ(std::vector<uint32_t>({0u, 0u, 0u}), codes);
    rig.expectTree();
    EXPECT_EQ(1, rig.events.count(event::Information, msg::DownloadCompleted));
    EXPECT_EQ(1, rig.events.count(event::Information, msg::DecompressCompleted));
    EXPECT_EQ(1, rig.events.count(event::Information, msg::UnpackageCompleted));
}

TEST(PackagePipeline, PackageInTwoBlocksMakesOneStream)
{
    PackageRig rig({L"pipeline-gnu_001_002.tar.lzma2", L"pipeline-gnu_002_002.tar.lzma2"});
    const auto codes = rig.run();
    EXPECT_EQ(std::vector<uint32_t>({0u, 0u, 0u}), codes);
    rig.expectTree();
    EXPECT_EQ(1, rig.job.validations());
    EXPECT_EQ(1, rig.events.count(event::Information, msg::UnpackageCompleted));
}

TEST(PackagePipeline, MissingSecondBlockNeverPassesAsComplete)
{
    // The second block's URL names nothing: the source can never finish, and the job stops it.
    PackageRig rig({L"pipeline-gnu_001_002.tar.lzma2", L"pipeline-gnu_002_002.tar.lzma2"});
    rig.request.blockUrls[1] = qvtest::nginxUrl(L"no-such-block_002_002.tar.lzma2");
    rig.request.retryCount = 1;
    rig.events.onEvent = [&rig](const fakes::RecordedEvent& e) {
        if ((e.kind == event::StatusMessage || e.kind == event::Error) && e.message == msg::NetworkError) {
            rig.job.state = qvdlm::state::Exiting;
            rig.job.stop = true;
        }
    };
    const auto codes = rig.run();
    for (uint32_t code : codes)
        EXPECT_NE(kTimedOut, code);
    EXPECT_EQ(qvdlm::state::Exiting, codes[0]);
    EXPECT_EQ(0, rig.events.count(event::Information, msg::UnpackageCompleted));
    EXPECT_EQ(0, rig.events.count(event::Information, msg::DownloadCompleted));
}
