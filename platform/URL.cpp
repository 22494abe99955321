#include "platform/URL.h"

#include <uriparser/Uri.h>

#include <algorithm>

#include "platform/Text.h"

namespace quorva::platform {
namespace {

// The part of `text` up to its path, and the authority in it without its slashes; empty where there
// is none. Nothing but RFC 3986's own characters will do here.
struct Beginning {
  std::string_view all;
  std::string_view authority;

  static Beginning of(std::string_view text) {
    const auto colon = text.find_first_of(":/?#");
    const std::size_t start = colon != text.npos && text[colon] == ':' ? colon + 1 : 0;
    if (!text.substr(start).starts_with("//")) return {text.substr(0, start), {}};
    const auto end = std::min(text.find_first_of("/?#", start + 2), text.size());
    return {text.substr(0, end), text.substr(start + 2, end - start - 2)};
  }
};

void appendEncoded(std::string& text, char byte) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  const auto value = static_cast<unsigned char>(byte);
  text += {'%', digits[value >> 4], digits[value & 15]};
}

bool isReference(const std::string& text) {
  UriUriA uri;
  const char* error = nullptr;
  if (uriParseSingleUriExA(&uri, text.data(), text.data() + text.size(), &error) != URI_SUCCESS) {
    return false;
  }
  uriFreeUriMembersA(&uri);
  return true;
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
  if (text.empty() || !isValidUTF8(text)) return std::nullopt;
  std::string kept(Beginning::of(text).all);
  std::string checked = kept;
  for (const char c : text.substr(kept.size())) {
    const bool isASCII = static_cast<unsigned char>(c) < 0x80;
    isASCII ? void(kept += c) : appendEncoded(kept, c);
    isASCII&& c != '[' && c != ']' ? void(checked += c) : appendEncoded(checked, c);
  }
  if (!isReference(checked)) return std::nullopt;
  return URL(std::move(kept));
}

std::string URL::host() const {
  std::string_view host = Beginning::of(text_).authority;
  host.remove_prefix(host.rfind('@') + 1);
  std::string name(host.substr(0, host.starts_with('[') ? host.find(']') + 1 : host.find(':')));
  std::ranges::transform(name, name.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; });
  return name;
}

}  // namespace quorva::platform
