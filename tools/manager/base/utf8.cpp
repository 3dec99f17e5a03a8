#include "manager/base/utf8.h"

#include <array>

namespace manager {
namespace {

constexpr char kReplacement[] = "\xef\xbf\xbd";

/// The characters that are encoded in a number of bytes.
struct Form {
    std::size_t size;
    unsigned char lead_mask;
    unsigned char lead;
    char32_t first;
    char32_t last;
};
constexpr std::array<Form, 4> kForms{{
    {1, 0x80, 0x00, 0x0, 0x7f},
    {2, 0xe0, 0xc0, 0x80, 0x7ff},
    {3, 0xf0, 0xe0, 0x800, 0xffff},
    {4, 0xf8, 0xf0, 0x10000, 0x10ffff},
}};

bool fits(const Form& form, std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if ((lead & form.lead_mask) != form.lead || text.size() < form.size) return false;
    char32_t character = lead & static_cast<unsigned char>(~form.lead_mask);
    for (const char c : text.substr(1, form.size - 1)) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte & 0xc0) != 0x80) return false;
        character = character << 6 | (byte & 0x3f);
    }
    const bool is_surrogate = character >= 0xd800 && character <= 0xdfff;
    return character >= form.first && character <= form.last && !is_surrogate;
}

/// The size of the character that `text` begins with, 0 if it begins with none.
std::size_t character_size(std::string_view text) {
    for (const Form& form : kForms) {
        if (fits(form, text)) return form.size;
    }
    return 0;
}

}  // namespace

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t size = character_size(text);
        if (size == 0) return false;
        text.remove_prefix(size);
    }
    return true;
}

std::string replace_invalid_utf8(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t size = character_size(text);
        result += size == 0 ? kReplacement : text.substr(0, size);
        text.remove_prefix(size == 0 ? 1 : size);
    }
    return result;
}

}  // namespace manager
