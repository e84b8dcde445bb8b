// Bad-input runs: a deterministic generator, the seed lists of short and long runs, and byte-level
// damage of a good input. Every run prints its seeds; QVDLM_FUZZ_SEED=<n> replays one of them.
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzz {

// splitmix64: tiny, fast, and the same sequence on every platform.
class Rng {
public:
    explicit Rng(uint64_t seed) : state_(seed) {}
    uint64_t next()
    {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    // Uniform enough in [0, n); 0 for n == 0.
    uint64_t below(uint64_t n) { return n ? next() % n : 0; }
    bool chance(unsigned percent) { return below(100) < percent; }
    template <typename T, size_t N>
    const T& pick(const T (&items)[N])
    {
        return items[below(N)];
    }

private:
    uint64_t state_;
};

inline uint64_t envNumber(const char* name)
{
    char text[32] = {};
    const DWORD n = GetEnvironmentVariableA(name, text, sizeof text);
    if (n == 0 || n >= sizeof text)
        return 0;
    return std::strtoull(text, nullptr, 0);
}

// The seeds of one run: a fixed list of shortCount seeds, or QVDLM_FUZZ_ROUNDS seeds continuing the
// same sequence (long runs), or the one seed of QVDLM_FUZZ_SEED (replay). Printed under the label.
inline std::vector<uint64_t> seeds(const char* label, size_t shortCount)
{
    std::vector<uint64_t> out;
    if (const uint64_t one = envNumber("QVDLM_FUZZ_SEED")) {
        out.push_back(one);
    } else {
        const uint64_t rounds = envNumber("QVDLM_FUZZ_ROUNDS");
        const size_t count = rounds ? static_cast<size_t>(rounds) : shortCount;
        for (size_t i = 0; i < count; ++i)
            out.push_back(1000 + i * 7919); // fixed, readable, and a short list is a prefix of a long one
    }
    std::printf("[fuzz] %s: %zu seeds:", label, out.size());
    for (size_t i = 0; i < out.size(); ++i) {
        if (i == 16 && out.size() > 20) {
            std::printf(" ... %llu", static_cast<unsigned long long>(out.back()));
            break;
        }
        std::printf(" %llu", static_cast<unsigned long long>(out[i]));
    }
    std::printf("\n");
    std::fflush(stdout);
    return out;
}

enum class Damage { BitFlips, Truncate, Insert, Delete, Overwrite, Count };

inline const char* damageName(Damage d)
{
    switch (d) {
    case Damage::BitFlips: return "bit flips";
    case Damage::Truncate: return "truncation";
    case Damage::Insert: return "insertion";
    case Damage::Delete: return "deletion";
    case Damage::Overwrite: return "overwrite";
    default: return "?";
    }
}

// Damages bytes[from, to) in place; unit > 1 keeps insertions, deletions and cuts to whole units
// (UTF-16 text stays aligned after the damage). Answers a description for failure messages.
inline std::string damage(std::string& bytes, Rng& rng, Damage kind, size_t from, size_t to, size_t unit = 1)
{
    if (to > bytes.size())
        to = bytes.size();
    if (from >= to)
        return "nothing to damage";
    const size_t span = to - from;
    auto aligned = [&](size_t at) { return from + (at - from) / unit * unit; };
    size_t at = aligned(from + rng.below(span));
    char text[96];
    switch (kind) {
    case Damage::BitFlips: {
        const unsigned flips = 1 + static_cast<unsigned>(rng.below(8));
        for (unsigned i = 0; i < flips; ++i)
            bytes[from + rng.below(span)] ^= static_cast<char>(1u << rng.below(8));
        std::snprintf(text, sizeof text, "%u bit flips in [%zu,%zu)", flips, from, to);
        break;
    }
    case Damage::Truncate:
        bytes.resize(at);
        std::snprintf(text, sizeof text, "cut at %zu", at);
        break;
    case Damage::Insert: {
        const size_t n = (1 + rng.below(64)) * unit;
        std::string noise(n, '\0');
        for (char& c : noise)
            c = static_cast<char>(rng.next());
        bytes.insert(at, noise);
        std::snprintf(text, sizeof text, "%zu bytes inserted at %zu", n, at);
        break;
    }
    case Damage::Delete: {
        size_t n = (1 + rng.below(64)) * unit;
        if (n > to - at)
            n = (to - at) / unit * unit;
        bytes.erase(at, n);
        std::snprintf(text, sizeof text, "%zu bytes deleted at %zu", n, at);
        break;
    }
    default: {
        size_t n = 1 + rng.below(32);
        if (n > to - at)
            n = to - at;
        for (size_t i = 0; i < n; ++i)
            bytes[at + i] = static_cast<char>(rng.next());
        std::snprintf(text, sizeof text, "%zu bytes overwritten at %zu", n, at);
        break;
    }
    }
    return std::string(damageName(kind)) + ": " + text;
}

} // namespace fuzz
