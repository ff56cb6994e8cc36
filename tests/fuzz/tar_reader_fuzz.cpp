// The tar reader on its own: the format as a server could send it. The archive is fed whole and in
// chunks of a size the input picks; both must yield the same events, since the network decides the
// chunks. The events must also nest (data only inside a file, every entry ended once) and a file
// must deliver exactly the bytes its header announced.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "tar_reader.h"

namespace {

using namespace kesclient;

class Recorder : public TarEvents {
public:
    std::string log;  // one line per event, data concatenated
    std::vector<std::string> names;

    bool OnEntry(const TarEntry& entry, std::string*) override {
        FUZZ_CHECK(!inEntry_);
        FUZZ_CHECK(entry.size <= (~std::uint64_t{0} >> 1));
        inEntry_ = true;
        isFile_ = entry.type == TarEntryType::kFile;
        expected_ = entry.size;
        received_ = 0;
        names.push_back(entry.name);
        log += "entry " + std::to_string(static_cast<int>(entry.type)) + " " +
               std::to_string(entry.size) + " " + entry.name + "\n";
        return true;
    }
    bool OnData(const std::uint8_t* data, std::size_t size, std::string*) override {
        FUZZ_CHECK(inEntry_ && isFile_);
        FUZZ_CHECK(size > 0 && size <= expected_ - received_);
        received_ += size;
        log.append(reinterpret_cast<const char*>(data), size);
        return true;
    }
    bool OnEntryEnd(std::string*) override {
        FUZZ_CHECK(inEntry_);
        if (isFile_) FUZZ_CHECK(received_ == expected_);
        inEntry_ = false;
        log += "\nend\n";
        return true;
    }
    bool inEntry() const { return inEntry_; }

private:
    bool inEntry_ = false;
    bool isFile_ = false;
    std::uint64_t expected_ = 0;
    std::uint64_t received_ = 0;
};

struct Outcome {
    bool fed = false;
    bool finished = false;
    std::string log;
};

Outcome Read(const std::uint8_t* data, std::size_t size, std::size_t chunk) {
    Recorder recorder;
    TarReader reader(recorder);
    Outcome outcome;
    outcome.fed = true;
    for (std::size_t offset = 0; outcome.fed && offset < size; offset += chunk) {
        outcome.fed = reader.Feed(data + offset, std::min(chunk, size - offset));
    }
    if (!outcome.fed) FUZZ_CHECK(!reader.error().empty());
    outcome.finished = reader.Finish();
    FUZZ_CHECK(outcome.finished == (outcome.fed && reader.ended()));
    if (outcome.finished) FUZZ_CHECK(!recorder.inEntry());  // the end marker closes every entry
    for (const std::string& name : recorder.names) FUZZ_CHECK(!name.empty());
    outcome.log = std::move(recorder.log);
    return outcome;
}

void CheckFields(const std::uint8_t* data, std::size_t size) {
    // Numeric fields: whatever value is read fits the 63 bits the reader promises.
    for (std::size_t width : {std::size_t{8}, std::size_t{12}}) {
        if (size < width) break;
        const auto value = ParseTarNumber(data, width);
        if (value) FUZZ_CHECK(*value <= (~std::uint64_t{0} >> 1));
    }
    const auto records =
        ParsePaxRecords(std::string_view(reinterpret_cast<const char*>(data), size));
    if (records && records->size) FUZZ_CHECK(*records->size <= (~std::uint64_t{0} >> 1));
    if (records && records->path) FUZZ_CHECK(records->path->size() < size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CheckFields(data, size);
    if (size < 1) return 0;
    // The first byte picks the chunk size; the rest is the archive.
    const std::size_t chunk = 1 + data[0] * 3;
    const Outcome whole = Read(data + 1, size - 1, size);
    const Outcome pieces = Read(data + 1, size - 1, chunk);
    FUZZ_CHECK(whole.fed == pieces.fed);
    FUZZ_CHECK(whole.finished == pieces.finished);
    if (whole.fed) FUZZ_CHECK(whole.log == pieces.log);
    return 0;
}
