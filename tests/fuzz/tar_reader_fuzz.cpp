// The tar reader alone, fed whole and in chunks the input picks: the same events either way, nested
// (data only inside a file, every entry ended once), and exactly the bytes each header announced.
#include <fmt/format.h>

#include "fuzz_check.h"
#include "tar_reader.h"

using namespace kesclient;

constexpr std::uint64_t kMax63Bits = ~std::uint64_t{0} >> 1;

struct Recorder : TarEvents {
    bool OnEntry(const TarEntry& entry, std::string*) override {
        FUZZ_CHECK(!inEntry && !entry.name.empty() && entry.size <= kMax63Bits);
        inEntry = true;
        left = entry.type == TarEntryType::kFile ? entry.size : 0;  // no data outside a file
        log += fmt::format("entry {} {} {}\n", int(entry.type), entry.size, entry.name);
        return true;
    }
    bool OnData(const std::uint8_t* data, std::size_t size, std::string*) override {
        FUZZ_CHECK(inEntry && size > 0 && size <= left);
        left -= size;
        log.append(fuzz::Text(data, size));
        return true;
    }
    bool OnEntryEnd(std::string*) override {
        FUZZ_CHECK(inEntry && left == 0);
        inEntry = false;
        log += "\nend\n";
        return true;
    }
    std::string log;  // one line per event, data concatenated
    bool inEntry = false;
    std::uint64_t left = 0;
};

static std::string Read(const fuzz::Bytes& archive, std::size_t chunk) {
    Recorder recorder;
    TarReader reader(recorder);
    const bool fed = fuzz::FeedInChunks(reader, archive, chunk);
    FUZZ_CHECK(fed || !reader.error().empty());
    const bool finished = reader.Finish();
    FUZZ_CHECK(finished == (fed && reader.ended()) && (!finished || !recorder.inEntry));
    return std::to_string(fed) + std::to_string(finished) + (fed ? recorder.log : "");
}

FUZZ_TARGET {
    // Numeric fields and pax sizes: whatever value is read fits the 63 bits the reader promises.
    for (const std::size_t width : {8, 12})
        if (size >= width) FUZZ_CHECK(ParseTarNumber(data, width).value_or(0) <= kMax63Bits);
    const auto records = ParsePaxRecords(fuzz::Text(data, size));
    FUZZ_CHECK(!records || records->size.value_or(0) <= kMax63Bits);
    if (size < 1) return;
    const fuzz::Bytes archive(data + 1, data + size);
    FUZZ_CHECK(Read(archive, size) == Read(archive, 1 + data[0] * 3));
}
