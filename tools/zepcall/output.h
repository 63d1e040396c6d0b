// How zepcall shows bytes: text when printable, a hex dump otherwise, and JSON strings.
#pragma once

#include <string>
#include <string_view>

namespace zepcall {

// The bytes as text when they are printable (tabs and line ends allowed); with `trimNuls` trailing
// NULs are dropped first, as a COMMAREA is longer than the text it holds.
bool printableText(std::string_view bytes, std::string& text, bool trimNuls);

// Lines of "0x%8.8X: " offset, 16 bytes in hex in groups of 4, " : " and the printable characters,
// as the library's trace dumps storage; each line starts with `indent`.
std::string hexDump(std::string_view bytes, std::string_view indent = "");

std::string hexString(std::string_view bytes);  // "0A1B..."

// Hex digits to bytes; blanks between them are allowed. Throws UsageError naming `what`.
std::string parseHex(std::string_view hex, const std::string& what);

std::string jsonString(std::string_view text);  // quoted and escaped

}  // namespace zepcall
