#include "output.h"

#include <cctype>
#include <cstdio>

#include "args.h"

namespace zepcall {

bool printableText(std::string_view bytes, std::string& text, bool trimNuls)
{
    size_t end = trimNuls ? bytes.find_last_not_of('\0') : bytes.size() - 1;
    std::string_view kept = end == std::string_view::npos ? std::string_view() : bytes.substr(0, end + 1);
    for (unsigned char c : kept)
        if (!std::isprint(c) && c != '\t' && c != '\n' && c != '\r')
            return false;
    text.assign(kept);
    return true;
}

std::string hexDump(std::string_view bytes, std::string_view indent)
{
    std::string out;
    char cell[32];
    for (size_t line = 0; line < bytes.size(); line += 16) {
        out += indent;
        std::snprintf(cell, sizeof cell, "0x%8.8zX: ", line);
        out += cell;
        std::string chars;
        for (size_t i = 0; i < 16; ++i) {
            if (line + i < bytes.size()) {
                unsigned char c = static_cast<unsigned char>(bytes[line + i]);
                std::snprintf(cell, sizeof cell, "%2.2X", c);
                out += cell;
                chars += std::isprint(c) ? static_cast<char>(c) : '.';
            } else {
                out += "  ";
            }
            if (i % 4 == 3 && i != 15)
                out += ' ';
        }
        out += " : " + chars + "\n";
    }
    return out;
}

std::string hexString(std::string_view bytes)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

std::string parseHex(std::string_view hex, const std::string& what)
{
    std::string bytes;
    int high = -1;
    for (char c : hex) {
        if (std::isspace(static_cast<unsigned char>(c)))
            continue;
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            throw UsageError(what + " is not hex: '" + std::string(1, c) + "' is no hex digit");
        int digit = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::tolower(c) - 'a' + 10;
        if (high < 0) {
            high = digit;
        } else {
            bytes += static_cast<char>(high * 16 + digit);
            high = -1;
        }
    }
    if (high >= 0)
        throw UsageError(what + " has an odd number of hex digits");
    return bytes;
}

std::string jsonString(std::string_view text)
{
    std::string out = "\"";
    char escape[8];
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c >= 0x7F) {
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            out += escape;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

}  // namespace zepcall
