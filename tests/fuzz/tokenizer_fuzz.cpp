// The one tokenizer, which splits the tool's command line and every version text. Checked against
// a plain split where no quote is involved, and for the promises that hold everywhere: no empty
// token, and nothing invented.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/tokenizer.h"
#include "fuzz_check.h"

namespace {

std::wstring FromUtf16Le(const std::uint8_t* data, std::size_t size) {
    std::wstring text;
    for (std::size_t i = 0; i + 1 < size; i += 2)
        text.push_back(static_cast<wchar_t>(data[i] | (data[i + 1] << 8)));
    return text;
}

std::vector<std::wstring> PlainSplit(const std::wstring& text, const std::wstring& separators) {
    std::vector<std::wstring> tokens;
    std::wstring token;
    for (const wchar_t c : text) {
        if (separators.find(c) == std::wstring::npos) {
            token += c;
        } else if (!token.empty()) {
            tokens.push_back(std::move(token));
            token.clear();
        }
    }
    if (!token.empty()) tokens.push_back(std::move(token));
    return tokens;
}

void Check(const std::wstring& text, const std::wstring& separators) {
    const std::vector<std::wstring> tokens = core::SplitTokens(text, separators);
    std::size_t characters = 0;
    for (const std::wstring& token : tokens) {
        FUZZ_CHECK(!token.empty());
        characters += token.size();
    }
    FUZZ_CHECK(characters <= text.size());
    if (text.find_first_of(L"\"'") == std::wstring::npos) {
        FUZZ_CHECK(tokens == PlainSplit(text, separators));
    }
    // Splitting is stable under extra separators at either end.
    if (!separators.empty()) {
        const std::wstring padded = separators.substr(0, 1) + text;
        FUZZ_CHECK(core::SplitTokens(padded, separators) == tokens);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::wstring narrow(data, data + size);
    const std::wstring wide = FromUtf16Le(data, size);
    for (const std::wstring& text : {narrow, wide}) {
        Check(text, L" \t\r\n");  // the command line
        Check(text, L".-_");      // version texts
    }
    return 0;
}
