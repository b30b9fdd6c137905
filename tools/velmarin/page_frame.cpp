#include "page_frame.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <array>

namespace tool {
namespace {

// How a policy names an element's text.
std::string source_of(std::string_view text) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest;
  SHA256(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest.data());
  std::array<unsigned char, 64> base64;  // room for 44 characters and a NUL
  EVP_EncodeBlock(base64.data(), digest.data(), digest.size());
  return "sha256-" + std::string(reinterpret_cast<const char *>(base64.data()));
}

void put(std::string &page, std::string_view placeholder, std::string_view text) {
  page.replace(page.find(placeholder), placeholder.size(), text);
}

}  // namespace

std::string page_frame() {
  std::string page(PAGE_HTML);
  put(page, "@STYLE_HASH@", source_of(PAGE_STYLE));
  put(page, "@SCRIPT_HASH@", source_of(PAGE_SCRIPT));
  put(page, "@STYLE@", PAGE_STYLE);
  put(page, "@SCRIPT@", PAGE_SCRIPT);
  return page;
}

}  // namespace tool
