// Event data as UEFI firmware writes it into the log.
#include <cstdint>

#include "EventLogWriter.h"

namespace SentrelTest {

namespace {
// EFI_GLOBAL_VARIABLE, 8be4df61-93ca-11d2-aa0d-00e098032b8c: its first three
// fields little-endian, the last eight bytes as they are.
constexpr char kEfiGlobalVariable[] = "\x61\xdf\xe4\x8b\xca\x93\xd2\x11\xaa\x0d\x00\xe0\x98\x03\x2b\x8c";
}  // namespace

String utf16(std::string_view ascii) {
   String out;
   for (char const c : ascii) putLittleEndian(out, static_cast<std::uint16_t>(static_cast<unsigned char>(c)));
   return out;
}

// UEFI_VARIABLE_DATA: VariableName, UnicodeNameLength (in CHAR16),
// VariableDataLength, UnicodeName, VariableData.
String uefiVariableData(std::string_view name, String const &value) {
   String out(kEfiGlobalVariable, 16);
   putLittleEndian(out, std::uint64_t{name.size()});
   putLittleEndian(out, std::uint64_t{value.size()});
   return out + utf16(name) + value;
}

// UEFI_IMAGE_LOAD_EVENT: location, length and link-time address of the
// image, then the device path: a media file-path node and the end node.
String imageLoadData(std::string_view filePath) {
   String const path = utf16(filePath) + String(2, '\0');
   String node{"\x04\x04", 2};
   putLittleEndian(node, static_cast<std::uint16_t>(4 + path.size()));
   node += path + String("\x7f\xff\x04\x00", 4);
   String out;
   putLittleEndian(out, std::uint64_t{0x7e1c3000});
   putLittleEndian(out, std::uint64_t{0x1a2000});
   putLittleEndian(out, std::uint64_t{0});
   putLittleEndian(out, std::uint64_t{node.size()});
   return out + node;
}

}  // namespace SentrelTest
