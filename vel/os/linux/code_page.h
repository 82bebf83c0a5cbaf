// Conversion between code points and the bytes of one code page.
#pragma once

#include <string>
#include <string_view>

namespace vel::os {

/// Name of the codeset that the environment asks for; empty stands for UTF-8, which is also meant by the C locale, by
/// a locale without a codeset and by no locale at all. Null or empty variables are passed over in the given order.
std::string code_page_of_environment(const char* lc_all, const char* lc_ctype, const char* lang);

/// Conversions that never fail: what is invalid becomes U+FFFD, what the code page lacks '?'.
std::wstring code_page_to_wide(const std::string& codeset, std::string_view text);
std::string wide_to_code_page(const std::string& codeset, std::wstring_view text);

} // namespace vel::os
