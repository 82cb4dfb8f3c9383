#include "kavdata/cache_internal.h"
#include "kavdata/strlcpy.h"
#include "trace/trace.h"

#include <algorithm>
#include <cstdlib>

namespace kavplat
{

namespace
{

bool is_continuation(char octet)
{
    return (static_cast<unsigned char>(octet) & 0xC0) == 0x80;
}

// How many bytes the UTF-8 character has that a text begins with; 0 when that is none.
size_t character_size(const char *text)
{
    struct form {
        unsigned lead_mask, lead;
        char32_t lowest; // what is less has a shorter form
    };
    constexpr form forms[] = {
        {0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};
    const auto lead = static_cast<unsigned char>(*text);
    size_t size = 1;
    for (const form &f : forms) {
        if ((lead & f.lead_mask) == f.lead) {
            char32_t code = lead & ~f.lead_mask & 0xFF;
            for (size_t i = 1; i < size; i++) {
                if (!is_continuation(text[i])) {
                    return 0;
                }
                code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3F);
            }
            const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
            return code >= f.lowest && code <= 0x10FFFF && !is_surrogate ? size : 0;
        }
        size++;
    }
    return 0;
}

} // namespace

const char *record_name(const capi_inventory_record &record)
{
    return record.nac_name && record.nac_name_length != 0 ? record.nac_name : "Unknown";
}

void copy_text(char *field, const char *text, size_t size)
{
    if (strlcpy(field, text, size) < size) {
        return;
    }
    // The character, if any, that goes on where the field ends.
    const size_t end = size - 1;
    for (size_t back = 1; back <= std::min<size_t>(end, 3); back++) {
        if (!is_continuation(text[end - back])) {
            if (character_size(text + end - back) > back) {
                field[end - back] = '\0';
            }
            return;
        }
    }
}

} // namespace kavplat

void replaceString(char **field, const char *source, uint32_t maximum)
{
    using namespace kavplat;

    KAV_TRACE("kavdata::fruid", "%s:old value:[%s]\n", "replaceString", printable(*field));
    free(*field);
    *field = static_cast<char *>(calloc(1, size_t{maximum} + 1));
    if (!*field) {
        log_failure("replaceString", "calloc");
        return;
    }
    if (source) {
        const size_t length = strlen(source);
        if (length > maximum) {
            snmp_log(LOG_ERR,
                     "%s:source string length (%u)exceeds maximum (%u) and will be truncated\n",
                     "replaceString", static_cast<unsigned>(length), maximum);
        }
        // One character less than the maximum survives: meant.
        copy_text(*field, source, maximum);
    } else {
        KAV_TRACE("kavdata::fruid", "src string NULL");
    }
    KAV_TRACE("kavdata::fruid", "%s:new value:[%s]\n", "replaceString", *field);
}
