// Shared pieces of the NetSession tests: the handle on the QvDownload.dll double, a plain request with
// block URLs and the local serving form, and an event recorder.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <mutex>
#include <string>
#include <vector>

#include "support/InertRequest.h"
#include "EventPublisher.h"
#include "EventSubscriber.h"
#include "QvDLMCodes.h"
#include "double/QvDownloadControl.h"
#include "support/MockDownload.h"

namespace nstest {

constexpr wchar_t kServePrefix[] = L"http://127.0.0.1:9421/api?function=serveFile&cid=0&url=";

// The double as the library sees it: the same module, loaded once more by the test to script it.
class NetSessionDouble {
public:
    NetSessionDouble() : module_(LoadLibraryW(L"QvDownload.dll"))
    {
        if (!module_)
            return;
        script_ = resolve<QvdScriptFn>("QvdScript");
        reset_ = resolve<QvdResetFn>("QvdReset");
        clearJournal_ = resolve<QvdClearJournalFn>("QvdClearJournal");
        journal_ = resolve<QvdJournalFn>("QvdJournal");
        live_ = resolve<QvdLiveSessionsFn>("QvdLiveSessions");
        startEndpoint_ = resolve<QvdStartServerFn>("QvdStartEndpoint");
        startOrigin_ = resolve<QvdStartServerFn>("QvdStartOrigin");
        setFailing_ = resolve<QvdSetFailingFn>("QvdSetEndpointFailing");
        stopServers_ = resolve<QvdStopServersFn>("QvdStopServers");
    }
    ~NetSessionDouble()
    {
        if (stopServers_)
            stopServers_();
        if (module_)
            FreeLibrary(module_);
    }
    NetSessionDouble(const NetSessionDouble&) = delete;
    NetSessionDouble& operator=(const NetSessionDouble&) = delete;

    bool loaded() const { return module_ && script_ && reset_ && clearJournal_ && journal_ && live_ && startEndpoint_ && stopServers_; }
    void script(const char* text) { script_(text); }
    // Forgets the journal, the script and the session numbers.
    void reset() { reset_(); }
    void clearJournal() { clearJournal_(); }
    int liveSessions() { return live_(); }
    bool startEndpoint(const std::wstring& root) { return startEndpoint_(root.c_str(), 9421) != 0; }
    bool startOrigin(const std::wstring& root, unsigned port)
    {
        return startOrigin_(root.c_str(), static_cast<uint16_t>(port)) != 0;
    }
    void setEndpointFailing(bool failing) { setFailing_(failing ? 1 : 0); }
    void setEndpointCuttingShort() { setFailing_(2); }
    void stopServers() { stopServers_(); }

    std::vector<std::string> journal()
    {
        std::string text(journal_(nullptr, 0), '\0');
        journal_(text.data(), text.size());
        text.resize(text.size() - 1);
        std::vector<std::string> lines;
        size_t at = 0;
        for (size_t end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
            lines.push_back(text.substr(at, end - at));
        return lines;
    }
    // Journal lines that start with prefix.
    std::vector<std::string> journal(const std::string& prefix)
    {
        std::vector<std::string> picked;
        for (const std::string& line : journal())
            if (line.rfind(prefix, 0) == 0)
                picked.push_back(line);
        return picked;
    }

private:
    template <typename Fn>
    Fn resolve(const char* name)
    {
        return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module_, name)));
    }

    HMODULE module_;
    QvdScriptFn script_ = nullptr;
    QvdResetFn reset_ = nullptr;
    QvdClearJournalFn clearJournal_ = nullptr;
    QvdJournalFn journal_ = nullptr;
    QvdLiveSessionsFn live_ = nullptr;
    QvdStartServerFn startEndpoint_ = nullptr;
    QvdStartServerFn startOrigin_ = nullptr;
    QvdSetFailingFn setFailing_ = nullptr;
    QvdStopServersFn stopServers_ = nullptr;
};

// A request with one URL per block and the URL forms that content delivery relies on: the plain form
// carries the block's query only when delivery is off; the serving form exists only while it is on.
class BlockRequest final : public InertRequest {
public:
    explicit BlockRequest(WStringList urls, WStringList queries = {})
        : urls_(std::move(urls)), queries_(std::move(queries)), blockCount_(static_cast<int32_t>(urls_.size()))
    {
    }

    const wchar_t* getUrl(bool local) override
    {
        if (blockId_ < 0 || blockId_ >= static_cast<int32_t>(urls_.size()))
            return nullptr;
        if (local && useAkamai_)
            current_ = std::wstring(kServePrefix) + urls_[blockId_];
        else {
            current_ = urls_[blockId_];
            if (!useAkamai_ && getQuery())
                current_ += (current_.find(L'?') == std::wstring::npos ? L"?" : L"&") + std::wstring(getQuery());
        }
        return current_.c_str();
    }
    const wchar_t* getQuery() override
    {
        if (queries_.empty())
            return nullptr;
        if (queries_.size() == 1)
            return queries_[0].c_str();
        return blockId_ < static_cast<int32_t>(queries_.size()) ? queries_[blockId_].c_str() : nullptr;
    }
    const wchar_t* nextBlock() override
    {
        if (blockId_ + 1 < blockCount_) {
            setBlockId(blockId_ + 1);
            return getUrl(true);
        }
        finished_ = true;
        return nullptr;
    }
    const WStringList& getQueries() override { return queries_; }
    const WStringList& getUrls() override { return urls_; }
    void setBlockId(int32_t id) override { blockId_ = id; }
    int32_t getBlockId() override { return blockId_; }
    void setBlockCount(int32_t count) override { blockCount_ = count; }
    int32_t getBlockCount() override { return blockCount_; }
    bool getUseAkamai() override { return useAkamai_; }
    void setUseAkamai(bool use) override { useAkamai_ = use; }
    bool isFinished() override { return finished_; }
    const wchar_t* getId() override { return urls_.empty() ? L"" : urls_[0].c_str(); }

    // What content delivery reads besides the blocks.
    const wchar_t* getVersion() override { return L"1.2"; }
    uint32_t getState() override { return qvdlm::state::Pending; }
    const wchar_t* getOriginalUrl() override { return getId(); }
    void clearQueries() override { queries_.clear(); }
    void addQuery(const wchar_t* query) override { queries_.push_back(query ? query : L""); }

private:
    WStringList urls_;
    WStringList queries_;
    int32_t blockCount_;
    int32_t blockId_ = 0;
    bool useAkamai_ = false;
    bool finished_ = false;
    std::wstring current_;
};

struct RecordedEvent {
    Download* source;
    uint32_t kind;
    uint64_t value;
    std::wstring text; // copy of a text event
    bool operator==(const RecordedEvent& other) const
    {
        const bool textual = !text.empty() || !other.text.empty();
        return source == other.source && kind == other.kind && (textual ? text == other.text : value == other.value);
    }
};

inline void PrintTo(const RecordedEvent& e, std::ostream* out)
{
    *out << "{kind " << e.kind << ", value " << e.value;
    if (!e.text.empty())
        *out << ", text \"" << ::testing::PrintToString(e.text) << "\"";
    *out << "}";
}

// Copies every published event while it is subscribed.
class EventRecorder final : public EventSubscriber {
public:
    EventRecorder() { EventPublisher::getInstance()->subscribe(this); }
    ~EventRecorder() { EventPublisher::getInstance()->unsubscribe(this); }
    EventRecorder(const EventRecorder&) = delete;
    EventRecorder& operator=(const EventRecorder&) = delete;

    void notify(const EventRecord* record) override
    {
        RecordedEvent copy{record->source, record->kind, record->value, {}};
        // Only information, debug, warning and error events may carry a text; a state is a plain value.
        if (record->kind >= qvdlm::event::Information && qvdlm::eventValueIsText(record->value))
            copy.text = reinterpret_cast<const wchar_t*>(record->value);
        std::lock_guard<std::mutex> hold(lock_);
        events_.push_back(copy);
    }
    std::vector<RecordedEvent> events()
    {
        std::lock_guard<std::mutex> hold(lock_);
        return events_;
    }

private:
    std::mutex lock_;
    std::vector<RecordedEvent> events_;
};

// A download that hands out its request and keeps its status and delivery flag as a job would.
class JobDouble : public ::testing::NiceMock<MockDownload> {
public:
    explicit JobDouble(DownloadRequest& request)
    {
        using ::testing::Invoke;
        using ::testing::Return;
        ON_CALL(*this, getRequest()).WillByDefault(Return(&request));
        ON_CALL(*this, setStatus(::testing::_)).WillByDefault(Invoke([this](unsigned s) { status = s; }));
        ON_CALL(*this, getStatus()).WillByDefault(Invoke([this] { return status; }));
        ON_CALL(*this, setUseAkamai(::testing::_, ::testing::_)).WillByDefault(Invoke([&request](bool use, bool) {
            request.setUseAkamai(use);
        }));
    }
    unsigned status = 0xDEADu;
};

} // namespace nstest
