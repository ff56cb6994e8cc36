#include "core/tokenizer.h"

namespace core {

std::vector<std::wstring> SplitTokens(std::wstring_view text, std::wstring_view separators) {
    const auto isSeparator = [separators](wchar_t c) {
        return separators.find(c) != std::wstring_view::npos;
    };
    std::vector<std::wstring> tokens;
    std::size_t i = 0;
    for (;;) {
        while (i < text.size() && isSeparator(text[i])) ++i;
        std::wstring token;
        if (i < text.size() && (text[i] == L'"' || text[i] == L'\'')) {
            const wchar_t quote = text[i++];
            while (i < text.size()) {
                if (text[i] != quote) {
                    token += text[i++];
                } else if (i + 1 < text.size() && text[i + 1] == quote) {
                    token += quote;
                    i += 2;
                } else {
                    ++i;
                    break;
                }
            }
        }
        while (i < text.size() && !isSeparator(text[i])) token += text[i++];
        if (token.empty()) return tokens;
        tokens.push_back(std::move(token));
    }
}

}  // namespace core
