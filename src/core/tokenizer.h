#pragma once
// The one tokenizer for command lines and version texts.
#include <string>
#include <string_view>
#include <vector>

namespace core {

// Splits text into tokens at the given separator characters; runs of separators count as one and
// leading ones are skipped. A token that begins with a single or a double quote runs to the next
// quote of the same kind, separators included, without its enclosing quotes; inside it that quote
// written twice stands for one. An unclosed quote runs to the end of the text, and text right
// after a closing quote (up to the next separator) belongs to the same token. An empty token, as
// from "", ends the list.
std::vector<std::wstring> SplitTokens(std::wstring_view text, std::wstring_view separators);

}  // namespace core
