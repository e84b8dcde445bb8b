#include "Lzma2Packer.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <system_error>

extern "C" {
#include "Lzma2Enc.h"
}

namespace fs = std::filesystem;

namespace qvpack {

namespace {

void* allocBlock(ISzAllocPtr, size_t size) { return std::malloc(size); }
void freeBlock(ISzAllocPtr, void* address) { std::free(address); }
const ISzAlloc kAlloc = {allocBlock, freeBlock};

struct InputAdapter {
    ISeqInStream vt;
    std::istream* in;
};

SRes readInput(ISeqInStreamPtr p, void* buffer, size_t* size)
{
    auto* self = reinterpret_cast<const InputAdapter*>(p);
    self->in->read(static_cast<char*>(buffer), static_cast<std::streamsize>(*size));
    *size = static_cast<size_t>(self->in->gcount());
    return self->in->bad() ? SZ_ERROR_READ : SZ_OK;
}

// Writes the encoded stream into block files, starting a new one every blockSize bytes. Blocks are
// written under temporary names and renamed once their count is known.
class BlockOutput {
public:
    BlockOutput(const fs::path& dir, const PackOptions& options) : dir_(dir), options_(options)
    {
        vt_.Write = &BlockOutput::writeThunk;
    }

    ISeqOutStream* stream() { return &vt_; }

    bool write(const void* data, size_t size)
    {
        const auto* bytes = static_cast<const char*>(data);
        while (size > 0) {
            if (!file_.is_open() || (options_.blockSize && inBlock_ == options_.blockSize)) {
                if (!openNext())
                    return false;
            }
            size_t chunk = size;
            if (options_.blockSize && chunk > options_.blockSize - inBlock_)
                chunk = static_cast<size_t>(options_.blockSize - inBlock_);
            file_.write(bytes, static_cast<std::streamsize>(chunk));
            if (!file_)
                return false;
            bytes += chunk;
            size -= chunk;
            inBlock_ += chunk;
            total_ += chunk;
        }
        return true;
    }

    bool finish(PackResult& result, std::string& error)
    {
        file_.close();
        const unsigned count = static_cast<unsigned>(temporary_.size());
        if (options_.blockSize && count > 999) {
            error = "more than 999 blocks: choose a larger block size";
            return false;
        }
        for (unsigned i = 0; i < count; ++i) {
            const fs::path target = dir_ / blockFileName(options_.stem, i + 1, options_.blockSize ? count : 0);
            std::error_code ec;
            fs::rename(temporary_[i], target, ec);
            if (ec) {
                error = "cannot rename " + temporary_[i].string() + ": " + ec.message();
                return false;
            }
            result.files.push_back(target);
        }
        result.compressedSize = total_;
        return true;
    }

    void discard()
    {
        file_.close();
        for (const auto& p : temporary_) {
            std::error_code ec;
            fs::remove(p, ec);
        }
    }

private:
    static size_t writeThunk(ISeqOutStreamPtr p, const void* data, size_t size)
    {
        auto* self = reinterpret_cast<BlockOutput*>(const_cast<ISeqOutStream*>(p));
        return self->write(data, size) ? size : 0;
    }

    bool openNext()
    {
        file_.close();
        temporary_.push_back(dir_ / (options_.stem + ".part" + std::to_string(temporary_.size() + 1)));
        file_.open(temporary_.back(), std::ios::binary | std::ios::trunc);
        inBlock_ = 0;
        return file_.is_open();
    }

    ISeqOutStream vt_; // first member: the encoder calls back through it
    fs::path dir_;
    PackOptions options_;
    std::ofstream file_;
    std::vector<fs::path> temporary_;
    uint64_t inBlock_ = 0;
    uint64_t total_ = 0;
};

} // namespace

std::string blockFileName(const std::string& stem, unsigned n, unsigned count)
{
    if (count == 0)
        return stem + ".tar.lzma2";
    char digits[16];
    std::snprintf(digits, sizeof digits, "_%03u_%03u", n, count);
    return stem + digits + ".tar.lzma2";
}

bool packLzma2(std::istream& in, uint64_t size, const fs::path& outputDir, const PackOptions& options,
               PackResult& result, std::string& error)
{
    std::unique_ptr<CLzma2Enc, void (*)(CLzma2EncHandle)> encoder(Lzma2Enc_Create(&kAlloc, &kAlloc), Lzma2Enc_Destroy);
    if (!encoder) {
        error = "out of memory";
        return false;
    }
    CLzma2EncProps props;
    Lzma2EncProps_Init(&props);
    props.lzmaProps.level = options.level;
    props.lzmaProps.dictSize = options.dictionarySize;
    props.lzmaProps.reduceSize = size;
    props.blockSize = LZMA2_ENC_PROPS_BLOCK_SIZE_SOLID;
    props.numTotalThreads = 1;
    Lzma2EncProps_Normalize(&props);
    if (Lzma2Enc_SetProps(encoder.get(), &props) != SZ_OK) {
        error = "invalid compression settings";
        return false;
    }
    Lzma2Enc_SetDataSize(encoder.get(), size);
    result.propertyByte = Lzma2Enc_WriteProperties(encoder.get());

    BlockOutput out(outputDir, options);
    InputAdapter input{{readInput}, &in};
    const uint8_t prop = result.propertyByte;
    SRes rc = out.write(&prop, 1) ? SZ_OK : SZ_ERROR_WRITE;
    if (rc == SZ_OK)
        rc = Lzma2Enc_Encode2(encoder.get(), out.stream(), nullptr, nullptr, &input.vt, nullptr, 0, nullptr);
    if (rc != SZ_OK) {
        error = rc == SZ_ERROR_WRITE ? "cannot write the package" : "compression failed (" + std::to_string(rc) + ")";
        out.discard();
        return false;
    }
    if (!out.finish(result, error)) {
        out.discard();
        return false;
    }
    return true;
}

} // namespace qvpack
