// Code pages: UTF-8 by own code, every other through the system's converter.
#include <vel/os/linux/code_page.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <iconv.h>
#include <vel/os/text.h>

namespace vel::os {
namespace {

constexpr char wide_codeset[] = "UTF-32LE";
constexpr wchar_t replacement = 0xFFFD;

/// One conversion by the system, begun again behind every character that it refuses.
class Converter {
public:
    Converter(const char* to, const char* from) : state_(::iconv_open(to, from)) {}
    ~Converter() {
        if (known()) ::iconv_close(state_);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    /// False when the system does not know one of the two.
    bool known() const { return state_ != reinterpret_cast<iconv_t>(-1); }

    /// @param unit     bytes to skip of what is refused
    /// @param instead  bytes to write for it
    std::string run(std::string_view input, size_t unit, std::string_view instead);

private:
    size_t step(char** input, size_t* left, std::string& output);

    iconv_t state_;
};

// Converts until the input ends, the buffer is full or a character is refused.
size_t Converter::step(char** input, size_t* left, std::string& output) {
    char buffer[256];
    char* to = buffer;
    size_t room = sizeof buffer;
    const size_t result = ::iconv(state_, input, left, &to, &room);
    const int reason = errno;
    output.append(buffer, sizeof buffer - room);
    errno = reason;
    return result;
}

std::string Converter::run(std::string_view input, size_t unit, std::string_view instead) {
    std::string output;
    char* from = const_cast<char*>(input.data()); // iconv reads it only
    size_t left = input.size();
    while (left > 0) {
        if (step(&from, &left, output) != static_cast<size_t>(-1) || errno == E2BIG) continue;
        output += instead;
        const size_t skipped = errno == EILSEQ ? std::min(unit, left) : left; // else: cut off at the end
        from += skipped;
        left -= skipped;
    }
    step(nullptr, nullptr, output); // a code page with shift states returns to its first one
    return output;
}

std::string_view bytes_of(std::wstring_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

bool is_utf8(std::string name) {
    name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    return name == "utf8";
}

} // namespace

std::string code_page_of_environment(const char* lc_all, const char* lc_ctype, const char* lang) {
    std::string_view locale;
    for (const char* variable : {lc_all, lc_ctype, lang})
        if (locale.empty() && variable) locale = variable;
    const size_t dot = locale.find('.');
    if (dot == std::string_view::npos) return {};
    std::string codeset(locale.substr(dot + 1, locale.find('@', dot) - dot - 1));
    if (is_utf8(codeset) || !Converter(wide_codeset, codeset.c_str()).known()) return {};
    return codeset;
}

std::wstring code_page_to_wide(const std::string& codeset, std::string_view text) {
    if (codeset.empty()) return utf8_to_wide(text);
    Converter converter(wide_codeset, codeset.c_str());
    if (!converter.known()) return utf8_to_wide(text);
    const std::string bytes = converter.run(text, 1, bytes_of({&replacement, 1}));
    std::wstring wide(bytes.size() / sizeof(wchar_t), L'\0');
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(wide.data()));
    return wide;
}

std::string wide_to_code_page(const std::string& codeset, std::wstring_view text) {
    if (codeset.empty()) return wide_to_utf8(text);
    Converter converter(codeset.c_str(), wide_codeset);
    return converter.known() ? converter.run(bytes_of(text), sizeof(wchar_t), "?") : wide_to_utf8(text);
}

} // namespace vel::os
