// Archive extraction policy of the content client: entry names, tar numbers, and the extractor with
// the tar reader and gzip below it. No crash, round trips and chunking invariance over arbitrary
// input are the fuzz targets' (tests/fuzz); these rows pin each decision and its exact refusal.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <optional>
#include <source_location>

#include "archive_extractor.h"
#include "entry_name.h"
#include "tar_reader.h"
#include "../fuzz/fuzz_check.h"

namespace {

using kesclient::ArchiveLimits;

constexpr const char* kUstar = "ustar\0" "00";
constexpr const char* kGnu = "ustar  \0";

std::string Repeat(const std::string& piece, std::size_t times) {
    std::string text;
    while (times--) text += piece;
    return text;
}

// One tar entry: header, content, padding; `spoil` is added to the header checksum.
std::string Entry(const std::string& name, char type, const std::string& content = "",
                  const std::string& prefix = "", const char* magic = kUstar, int spoil = 0) {
    std::string block(512, '\0');
    block.replace(0, std::min<std::size_t>(name.size(), 100), name.substr(0, 100));
    std::snprintf(&block[124], 12, "%011zo", content.size());
    block[156] = type;
    std::memcpy(&block[257], magic, 8);
    block.replace(345, prefix.size(), prefix);
    block.replace(148, 8, "        ");
    unsigned sum = static_cast<unsigned>(spoil);
    for (const char c : block) sum += static_cast<unsigned char>(c);
    std::snprintf(&block[148], 7, "%06o", sum);
    return block + content + std::string((512 - content.size() % 512) % 512, '\0');
}
std::string File(const std::string& name, const std::string& content = "x") {
    return Entry(name, '0', content);
}
const std::string kEnd(1024 + 8192, '\0');

const std::uint8_t* Bytes(const std::string& s) {
    return reinterpret_cast<const std::uint8_t*>(s.data());
}
std::string Gzip(const std::string& data, int level = 6) {
    const fuzz::Bytes out = fuzz::Gzip(Bytes(data), data.size(), level);
    return {out.begin(), out.end()};
}

// Records what reaches the staging folder, "dir/ " and "file=content; "; "full" meets a full disk.
class RecordingSink : public kesclient::ExtractionSink {
public:
    bool MakeDirectory(const std::vector<std::string>& path, std::string*) override {
        return Record(path, "/ ");
    }
    bool BeginFile(const std::vector<std::string>& path, std::uint64_t, std::string* why) override {
        if (path.back() == "full") *why = "disk full";
        return path.back() != "full" && Record(path, "=");
    }
    bool WriteFile(const std::uint8_t* data, std::size_t size, std::string*) override {
        log.append(reinterpret_cast<const char*>(data), size);
        return true;
    }
    bool EndFile(std::string*) override { return Record({}, "; "); }
    bool Record(const std::vector<std::string>& path, const char* end) {
        log += fuzz::Joined(path) + end;
        return true;
    }
    std::string log;
};

// Whole, in 333-byte pieces and byte by byte: what the sink saw, or "! " and the error.
void Expect(const std::string& archive, const std::string& want, ArchiveLimits limits = {},
            std::source_location at = std::source_location::current()) {
    const testing::ScopedTrace trace(at.file_name(), static_cast<int>(at.line()), "row");
    for (const std::size_t chunk : {archive.size() + 1, std::size_t{333}, std::size_t{1}}) {
        RecordingSink sink;
        kesclient::ArchiveExtractor extractor(sink, limits, {"~staging"});
        const bool fed = fuzz::FeedInChunks(extractor, {archive.begin(), archive.end()}, chunk);
        EXPECT_EQ(fed && extractor.Finish() ? sink.log : "! " + extractor.error(), want) << chunk;
    }
}

TEST(KesExtractor, ExtractsOrRefusesTheWholeArchiveInAnyChunking) {
    std::string big;
    for (int i = 0; i < 1300; ++i) big += static_cast<char>('a' + i % 23);
    const std::string pkg = Entry("pkg/", '5') + File("pkg/setup.exe", big) + File("pkg/e", "") +
                            File("./pkg/sub/readme.txt", "hi") + Entry("PKG/", '5') + kEnd;
    const std::string out = "pkg/ pkg/setup.exe=" + big + "; pkg/e=; pkg/sub/readme.txt=hi; PKG/ ";
    Expect(pkg, out);
    Expect(Gzip(pkg.substr(0, 700)) + Gzip(pkg.substr(700)), out);
    const std::string name = std::string(150, 'n') + "/" + std::string(120, 'm') + ".bin";
    Expect(Entry("././@LongLink", 'L', name + '\0', "", kGnu) + Entry("s", '0', "gnu", "", kGnu) +
               Entry("P", 'x', "289 path=pax/" + name + "\n13 mtime=1.5\n") +
               File("ignored", "pax") + Entry("f", '0', "prefixed", "some/prefix") + kEnd,
           name + "=gnu; pax/" + name + "=pax; some/prefix/f=prefixed; ");
    Expect(Entry("P", 'x', "9 size=3\n") + File("f", "") + "abc" + std::string(509, '\0') + kEnd,
           "f=abc; ");

    const auto in = [](const std::string& entries) { return File("ok.txt") + entries + kEnd; };
    Expect(in(File("../evil.txt")), "! \"..\" component: \"../evil.txt\"");
    for (const auto& [type, what] : std::map<char, std::string>{
             {'1', "hard link"}, {'2', "symbolic link"}, {'3', "character device"},
             {'4', "block device"}, {'6', "FIFO"}, {'V', "unsupported entry type"}})
        Expect(in(Entry("e", type)), "! " + what + " \"e\"");
    Expect(in(Entry("P", 'x', "22 GNU.sparse.map=0,1\n") + File("s")), "! sparse file");
    const std::string twice = "! name used twice (letter case ignored): ";
    Expect(in(File("Readme.txt") + File("README.TXT")), twice + "\"README.TXT\"");
    Expect(in(File("d") + Entry("D/", '5')), twice + "\"D/\"");
    Expect(in(File("f") + File("F/g")), "! entry below a file: \"F/g\"");
    Expect(in(File("~STAGING/x")), "! name reserved for the extraction: \"~STAGING/x\"");
    Expect(in(File("./")), "! file without a name: \"./\"");
    Expect(in(File("")), "! entry without a name");
    Expect(in(File("full")), "! disk full");
    Expect(in(Entry("bad", '0', "x", "", kUstar, 1)), "! bad header checksum");
    Expect(in(Entry("old", '0', "x", "", "\0\0\0\0\0\0\0\0")), "! not a ustar archive");
    Expect(in(Entry("P", 'x', "5 path=x\n") + File("f")), "! malformed extended header");
    Expect(in(Entry("K", 'K', std::string(65536, 'k'), "", kGnu) + Entry("l", '2')),
           "! symbolic link \"l\"");
    Expect(in(Entry("K", 'K', std::string(65537, 'k'), "", kGnu)), "! extended header too large");
    Expect(File("a") + std::string(512, '\0') + File("b") + kEnd,
           "! lone zero block inside the archive");
    Expect(File("a") + Entry("P", 'x', "9 path=b\n") + kEnd, "! extended header without an entry");
    Expect("", "! empty archive");
    const std::string noEnd = "! archive ends before its end-of-archive marker";
    Expect("ab", noEnd);
    Expect(File("a") + std::string(512, '\0'), noEnd);
    Expect(Gzip(pkg) + "\x1F", "! compressed stream is truncated");
    Expect(Gzip(pkg).substr(0, 60), "! compressed stream is truncated");
    Expect(Gzip(pkg) + "trailing", "! data after the end of the compressed stream");
    std::string badCrc = Gzip(pkg);
    badCrc[badCrc.size() - 8] ^= 1;
    Expect(badCrc, "! corrupt compressed data: incorrect data check");

    const std::string five = File("a") + File("b") + File("c") + File("d") + File("e") + kEnd;
    Expect(five, "a=x; b=x; c=x; d=x; e=x; ", {5});
    Expect(five, "! too many entries", {4});
    Expect(pkg, out, {20000, 1302});
    Expect(pkg, "! files larger than the limit", {20000, 1301});
    // Zeros after the end marker cost nothing on disk but count as gzip output.
    const auto zeros = [](std::size_t n) { return Gzip(File("x") + std::string(n, '\0'), 9); };
    Expect(zeros(4 << 20), "x=x; ", {20000, 1 << 20, 2000, 1 << 20});
    Expect(zeros(4 << 20), "! compression ratio beyond limit", {20000, 1 << 20, 100, 1 << 20});
    const std::size_t room = 1 + 3 * 512 + (1 << 20) - 1024;  // output allowed for one byte, less x
    Expect(zeros(room), "x=x; ", {1, 1, 1 << 30, 0});
    Expect(zeros(room + 1), "! decompressed size beyond limit", {1, 1, 1 << 30, 0});
}

TEST(KesEntryName, SplitsOrRefusesWithTheReason) {
    const std::pair<std::string, std::vector<std::string>> rows[] = {
        {"[a][b.txt]", {"a/b.txt"}}, {"[a][b]", {"./a//b/", "a\\b"}},
        {"", {"./", Repeat("./", 512)}}, {"[caf\xC3\xA9]", {"caf\xC3\xA9"}},
        {"[.h][a..b][COM10][console.txt]", {".h/a..b/COM10/console.txt"}},
        {"[" + std::string(255, 'a') + "]", {std::string(255, 'a')}},
        {Repeat("[d]", 64), {Repeat("d/", 64)}},
        {"empty name", {""}}, {"NUL in name", {std::string("a\0b", 3)}},
        {"name too long", {Repeat("./", 512) + "."}}, {"absolute path", {"/etc/passwd", "\\W\\x"}},
        {"UNC path", {"\\\\server\\share\\x", "//server/share"}},
        {"device path", {"\\\\?\\C:\\x", "\\\\.\\PhysicalDrive0", "//?/c:/x"}},
        {"drive path", {"C:\\x"}}, {"drive-relative path", {"c:x", "Z:"}},
        {"\"..\" component", {"../x", "a\\..\\x"}}, {"path too deep", {Repeat("d/", 64) + "x"}},
        {"name component too long", {std::string(256, 'a')}},
        {"name is not UTF-8", {"\xC3\x28", "\xC0\xAF", "\xED\xA0\x80"}},
        {"control character in name", {"a\x01" "b", "a\x7F"}},
        {"character Windows does not allow in a name",
         {"a<", "a>", "b/a:", "a\"", "a|", "a?", "a*"}},
        {"name ends in a dot or a blank", {"trail.", "trail ", "dir./x"}},
        {"reserved device name", {"NUL", "con", "aux.txt", "a/Com1", "lpt9.log", "nul .txt",
                                  "COM\xC2\xB9", "CONIN$", "x/CLOCK$"}},
    };
    for (const auto& [want, names] : rows) {
        for (const std::string& name : names) {
            std::string got;
            const auto components = kesclient::SplitEntryName(name, &got);
            if (components) got.clear();
            for (const std::string& c : components.value_or(std::vector<std::string>{}))
                got += "[" + c + "]";
            EXPECT_EQ(got, want) << name;
        }
    }
}

TEST(KesFoldCase, MeetsWhatWindowsConsidersOneName) {
    const std::pair<const char*, const char*> rows[] = {
        {"ReadMe.TXT", "readme.txt"}, {"\xC3\x89T\xC3\x89", "\xC3\xA9t\xC3\xA9"},  // ÉTÉ
        {"\xD0\x90\xD0\x81", "\xD0\xB0\xD1\x91"}, {"\xCE\xA3", "\xCF\x83"},          // АЁ Σ
        {"\xC5\xB9", "\xC5\xBA"}, {"\xC3\x97\xE2\x82\xAC", "\xC3\x97\xE2\x82\xAC"},  // Ź; × €
    };
    for (const auto& [text, folded] : rows) EXPECT_EQ(kesclient::FoldCase(text), folded) << text;
}

TEST(KesTarNumber, OctalAndBase256WithinSixtyThreeBits) {
    const std::pair<std::string, std::optional<std::uint64_t>> rows[] = {
        {std::string("00000000017\0", 12), 15}, {"  17 ", 15}, {std::string(12, '\0'), 0},
        {std::string("\x80\0\0\0\0\0\0\x02\0\0\0\0", 12), 8589934592u},  // 8 GiB
        {std::string(12, '\xFF'), std::nullopt},                          // negative
        {std::string("\x80\0\0\0\x7F", 5) + std::string(7, '\xFF'), INT64_MAX},
        {std::string("\x80\0\0\0\x80", 5) + std::string(7, '\0'), std::nullopt},
        {std::string(21, '7'), INT64_MAX}, {"1" + std::string(21, '0'), std::nullopt},
        {"0001 2", std::nullopt}, {"0009", std::nullopt},
    };
    for (const auto& [field, value] : rows)
        EXPECT_EQ(kesclient::ParseTarNumber(Bytes(field), field.size()), value) << field;
}

}  // namespace
