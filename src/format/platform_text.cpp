#include "format/platform_text.hpp"

namespace vistrel {

namespace {

// Letters, digits and underscore continue a word; so does any byte of a multi-byte UTF-8
// character, so "Macé" is not the word "Mac".
bool isWordByte(char c) {
  const auto u = static_cast<unsigned char>(c);
  return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') || u == '_' ||
         u >= 0x80;
}

// `text` with every whole-word, case-sensitive occurrence of `word` replaced by `replacement`.
std::string replaceWord(std::string_view text, std::string_view word,
                        std::string_view replacement) {
  std::string out;
  out.reserve(text.size());
  size_t from = 0;
  while (from < text.size()) {
    const size_t at = text.find(word, from);
    if (at == std::string_view::npos) break;
    const size_t after = at + word.size();
    const bool startsWord = at == 0 || !isWordByte(text[at - 1]);
    const bool endsWord = after == text.size() || !isWordByte(text[after]);
    out.append(text, from, at - from);
    if (startsWord && endsWord) {
      out.append(replacement);
    } else {
      out.append(word);
    }
    from = after;
  }
  if (from < text.size()) out.append(text, from);
  return out;
}

}  // namespace

std::string platformTextFor(std::string_view macText, bool forLinux) {
  if (!forLinux) return std::string(macText);
  return replaceWord(replaceWord(macText, "macOS", "Linux"), "Mac", "computer");
}

std::string platformText(std::string_view macText) {
  return platformTextFor(macText, runningOnLinux());
}

}  // namespace vistrel
