#include <gtest/gtest.h>

#include "EventLogWriter.h"
#include "evidence/EventNames.h"

using namespace SentrelEvidence;
using namespace SentrelTest;

namespace {

String littleEndian(std::uint64_t n, std::size_t size) {
   String out;
   for (std::size_t i = 0; i < size; ++i) out += static_cast<char>(n >> (8 * i) & 0xFF);
   return out;
}

// A UEFI_VARIABLE_DATA whose lengths say what the test wants, whatever follows.
String variableData(std::uint64_t nameChars, std::uint64_t valueLength, String const &rest) {
   return String(16, '\x11') + littleEndian(nameChars, 8) + littleEndian(valueLength, 8) + rest;
}

// Device path nodes, and a UEFI_IMAGE_LOAD_EVENT around a device path.
String node(int type, int subtype, String const &payload) {
   return String{static_cast<char>(type), static_cast<char>(subtype)} + littleEndian(4 + payload.size(), 2) + payload;
}
String fileNode(std::string_view path) { return node(4, 4, utf16(path) + String(2, '\0')); }
String const kEnd = node(0x7F, 0xFF, "");
String imageData(String const &path) { return String(24, '\0') + littleEndian(path.size(), 8) + path; }

}  // namespace

TEST(EventNames, ComponentIsWhatTheEventSaysItMeasuredAndNothingWhenItsDataIsMalformed) {
   auto const app = EV_EFI_BOOT_SERVICES_APPLICATION, driver = EV_EFI_BOOT_SERVICES_DRIVER;
   String const fvFile = node(4, 6, String("\x78\x56\x34\x12\xbc\x9a\xf0\xde\x01\x02\x03\x04\x05\x06\x07\x08", 16));
   String const optionRom = node(4, 8, String(4, '\0') + littleEndian(0x200, 8) + littleEndian(0xffff, 8));
   for (auto const &[what, type, data, text] : std::vector<std::tuple<char const *, std::uint32_t, String, String>>{
           {"a variable", EV_EFI_VARIABLE_DRIVER_CONFIG, uefiVariableData("SecureBoot", "\x01"), "SecureBoot"},
           {"a boot variable", EV_EFI_VARIABLE_BOOT, uefiVariableData("Boot0001", String(60, 'x')), "Boot0001"},
           {"a boot variable, second form", 0x8000000C, uefiVariableData("BootOrder", "\x01"), "BootOrder"},
           {"past the BMP, a lone surrogate", EV_EFI_VARIABLE_AUTHORITY,
            variableData(4, 0, String("\x3d\xd8\x00\xde\x3d\xd8" "A\0", 8)), "\xf0\x9f\x98\x80\xef\xbf\xbd" "A"},
           {"a path in two nodes", app, imageData(node(4, 1, String(38, '\0')) + fileNode("\\EFI\\debian") +
                                                  fileNode("shimx64.efi") + kEnd), "\\EFI\\debian\\shimx64.efi"},
           {"a volume's file", driver, imageData(fvFile + kEnd), "FvFile(12345678-9abc-def0-0102-030405060708)"},
           {"an option ROM", driver, imageData(node(1, 1, "") + optionRom + kEnd), "Offset(0x200,0xffff)"},
           {"a node of another kind", driver, imageData(node(1, 1, String{0, 0x1c}) + kEnd), "Path(1,1)"},
           {"an action", EV_EFI_ACTION, "Exit Boot Services Invocation", "Exit Boot Services Invocation"},
           {"a post code with its NUL", EV_POST_CODE, String("ACPI DATA\0", 10), "ACPI DATA"},
           // As the firmware wrote it: whoever shows it to people escapes it.
           {"UTF-16 that reorders", EV_S_CRTM_VERSION, utf16("1.0") + String("\x2e\x20", 2), "1.0\xe2\x80\xae"},
           {"control characters and a byte of no encoding", EV_IPL, "linux\t/vmlinuz\x1b[2J\xff",
            "linux\t/vmlinuz\x1b[2J\xff"},
           {"a long text", EV_ACTION, String(255, 'a') + String(9, '\xff'), String(255, 'a') + "\xff..."},
           {"a long text cut before a character", EV_ACTION, String(255, 'a') + "\xc3\xa9" + String(9, 'b'),
            String(255, 'a') + "..."},
           {"text with bytes after its NUL", EV_EFI_ACTION, String("Exit\0junk", 9), ""},
           {"variable data shorter than its header", EV_EFI_VARIABLE_BOOT, String(31, '\0'), ""},
           {"a name past the data", EV_EFI_VARIABLE_BOOT, variableData(5, 0, utf16("Boot")), ""},
           {"a name length that overflows", EV_EFI_VARIABLE_BOOT, variableData((1ULL << 63) + 1, 0, utf16("A")), ""},
           {"a value past the data", EV_EFI_VARIABLE_BOOT, variableData(2, 3, utf16("db") + "ab"), ""},
           {"image data shorter than its header", app, String(31, '\0'), ""},
           {"a device path past the data", app, imageData(fileNode("\\a.efi") + kEnd).replace(24, 1, 1, '\x21'), ""},
           {"a node of length 0", app, imageData(fileNode("\\a.efi") + String{4, 4, 0, 0} + kEnd), ""},
           // The data goes on past the path, to an end node where the node's length would take it.
           {"a node past the path", app, imageData(fileNode("\\a") + String{4, 4, 24, 0}) + String(20, 0) + kEnd, ""},
        }) {
      EXPECT_EQ(eventComponent(Event{7, 0, 4, type, {}, data}), text) << what;
   }
}
