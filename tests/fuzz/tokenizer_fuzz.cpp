// The one tokenizer, of the command line and every version text: a plain split where no quote is
// involved, and everywhere no empty token and nothing invented.
#include "core/tokenizer.h"
#include "fuzz_check.h"

static void Check(const std::wstring& text, const std::wstring& separators) {
    const std::vector<std::wstring> tokens = core::SplitTokens(text, separators);
    std::size_t characters = 0;
    for (const std::wstring& token : tokens)
        FUZZ_CHECK(!token.empty() && (characters += token.size()) <= text.size());
    FUZZ_CHECK(core::SplitTokens(separators.substr(0, 1) + text, separators) == tokens);
    if (text.find_first_of(L"\"'") != text.npos) return;
    std::vector<std::wstring> plain;
    for (std::size_t at = text.find_first_not_of(separators); at != text.npos;) {
        const std::size_t end = text.find_first_of(separators, at);
        plain.push_back(text.substr(at, end - at));
        at = text.find_first_not_of(separators, end);
    }
    FUZZ_CHECK(tokens == plain);
}

FUZZ_TARGET {
    for (const std::wstring& text : {fuzz::Widened(data, size), fuzz::Utf16Le(data, size)}) {
        Check(text, L" \t\r\n");  // the command line
        Check(text, L".-_");      // version texts
    }
}
