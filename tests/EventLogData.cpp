#include <cstdint>

#include "EventLogWriter.h"

namespace SentrelTest {

namespace {
void appendLittleEndian(String &out, std::uint64_t n, std::size_t size) {
   for (std::size_t i = 0; i < size; ++i) out += static_cast<char>(n >> (8 * i) & 0xFF);
}
}  // namespace

String utf16(std::string_view ascii) {
   String out;
   for (char c : ascii) out += {c, '\0'};
   return out;
}

String uefiVariableData(std::string_view name, String const &value) {
   // EFI_GLOBAL_VARIABLE, 8be4df61-93ca-11d2-aa0d-00e098032b8c, as it lies in memory.
   String out("\x61\xdf\xe4\x8b\xca\x93\xd2\x11\xaa\x0d\x00\xe0\x98\x03\x2b\x8c", 16);
   appendLittleEndian(out, name.size(), 8);
   appendLittleEndian(out, value.size(), 8);
   return out + utf16(name) + value;
}

String imageLoadData(std::string_view filePath) {
   // A hard drive node (partition 1, GPT), the file path node, the end.
   String path{4, 1};
   appendLittleEndian(path, 42, 2);
   appendLittleEndian(path, 1, 4);
   path += String(32, '\0');  // start, size, signature
   path += {2, 2};             // GPT, with a GUID signature
   String const name = utf16(filePath) + String(2, '\0');
   path += {4, 4};
   appendLittleEndian(path, 4 + name.size(), 2);
   path += name + String("\x7f\xff\x04\x00", 4);

   String out;
   appendLittleEndian(out, 0x7d000000, 8);  // where the image was loaded
   appendLittleEndian(out, 0x20000, 8);     // its length
   appendLittleEndian(out, 0, 8);           // its link-time address
   appendLittleEndian(out, path.size(), 8);
   return out + path;
}

}  // namespace SentrelTest
