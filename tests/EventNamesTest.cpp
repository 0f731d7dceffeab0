#include <gtest/gtest.h>

#include "EventLogWriter.h"
#include "host/evidence/EventNames.h"

using namespace SentrelEvidence;
using SentrelTest::imageLoadData;
using SentrelTest::uefiVariableData;
using SentrelTest::utf16;

namespace {

constexpr std::uint32_t EV_EFI_VARIABLE_BOOT2 = 0x8000000C;

String littleEndian(std::uint64_t n, std::size_t size) {
   String out;
   for (std::size_t i = 0; i < size; ++i) out += static_cast<char>(n >> (8 * i) & 0xFF);
   return out;
}

// A UEFI_VARIABLE_DATA whose lengths say what the test wants, whatever follows.
String variableData(std::uint64_t nameChars, std::uint64_t valueLength, String const &rest) {
   return String(16, '\x11') + littleEndian(nameChars, 8) + littleEndian(valueLength, 8) + rest;
}

String node(int type, int subtype, String const &payload) {
   return String{static_cast<char>(type), static_cast<char>(subtype)} + littleEndian(4 + payload.size(), 2) +
          payload;
}
String const kEnd = node(0x7F, 0xFF, "");
String fileNode(std::string_view path) { return node(4, 4, utf16(path) + String(2, '\0')); }

// A UEFI_IMAGE_LOAD_EVENT around a device path.
String imageData(String const &path) { return String(24, '\0') + littleEndian(path.size(), 8) + path; }

Event event(std::uint32_t type, String data) { return Event{7, 0, 4, type, {}, std::move(data)}; }

}  // namespace

TEST(EventNames, TypesHaveTheirTcgNamesInEitherCaseAndOthersTheirNumber) {
   for (auto const &[type, name] : std::vector<std::pair<std::uint32_t, String>>{
           {0x00000000, "EV_PREBOOT_CERT"},
           {EV_NO_ACTION, "EV_NO_ACTION"},
           {0x0000000C, "EV_COMPACT_HASH"},
           {EV_IPL, "EV_IPL"},
           {0x00000012, "EV_OMIT_BOOT_DEVICE_EVENTS"},
           {EV_EFI_BOOT_SERVICES_APPLICATION, "EV_EFI_BOOT_SERVICES_APPLICATION"},
           {EV_EFI_VARIABLE_BOOT2, "EV_EFI_VARIABLE_BOOT2"},
           {0x80000010, "EV_EFI_HCRTM_EVENT"},
           {EV_EFI_VARIABLE_AUTHORITY, "EV_EFI_VARIABLE_AUTHORITY"},
           {0x800000E4, "EV_EFI_SPDM_DEVICE_AUTHORITY"},
        }) {
      EXPECT_EQ(eventTypeName(type), name);
      String lower = name;
      for (char &c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      EXPECT_EQ(eventType(name), type) << name;
      EXPECT_EQ(eventType(lower), type) << lower;
   }
   EXPECT_EQ(eventTypeName(0x80000000), "0x80000000");
   EXPECT_EQ(eventTypeName(0x000000FF), "0x000000ff");
   for (char const *name : {"0x80000000", "EV_", "EV_IPLX", "EV_EFI_VARIABLE_BOO", ""}) {
      EXPECT_EQ(eventType(name), std::nullopt) << name;
   }
}

TEST(EventNames, ComponentIsWhatTheEventSaysItMeasuredAndNothingWhenItsDataIsMalformed) {
   String const fvFile = node(4, 6, String("\x78\x56\x34\x12\xbc\x9a\xf0\xde\x01\x02\x03\x04\x05\x06\x07\x08", 16));
   String const hardDrive = node(4, 1, String(38, '\0'));
   struct Case {
      char const *what;
      std::uint32_t type;
      String data;
      String component;
   };
   for (auto const &c : std::vector<Case>{
           {"a driver config variable", EV_EFI_VARIABLE_DRIVER_CONFIG, uefiVariableData("SecureBoot", "\x01"),
            "SecureBoot"},
           {"a boot variable", EV_EFI_VARIABLE_BOOT, uefiVariableData("Boot0001", String(60, 'x')), "Boot0001"},
           {"a boot variable, second form", EV_EFI_VARIABLE_BOOT2, uefiVariableData("BootOrder", "\x01\x00"),
            "BootOrder"},
           {"an authority", EV_EFI_VARIABLE_AUTHORITY, uefiVariableData("db", String(900, '\x30')), "db"},
           {"a name with a character beyond the BMP",
            EV_EFI_VARIABLE_BOOT, variableData(2, 0, String("\x3d\xd8\x00\xde", 4)), "\xf0\x9f\x98\x80"},
           {"a name with a lone surrogate", EV_EFI_VARIABLE_BOOT, variableData(2, 0, String("\x3d\xd8" "A\0", 4)),
            "\xef\xbf\xbd" "A"},
           {"a boot application", EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\BOOT\\BOOTX64.EFI"),
            "\\EFI\\BOOT\\BOOTX64.EFI"},
           {"a path in two nodes", EV_EFI_BOOT_SERVICES_APPLICATION,
            imageData(hardDrive + fileNode("\\EFI\\debian") + fileNode("shimx64.efi") + kEnd),
            "\\EFI\\debian\\shimx64.efi"},
           {"a driver of a firmware volume", EV_EFI_BOOT_SERVICES_DRIVER, imageData(fvFile + kEnd),
            "FvFile(12345678-9abc-def0-0102-030405060708)"},
           {"a driver of an option ROM", EV_EFI_RUNTIME_SERVICES_DRIVER,
            imageData(node(1, 1, String{0, 0x1c}) + node(4, 8, String(4, '\0') + littleEndian(0x200, 8) +
                                                             littleEndian(0xffff, 8)) +
                      kEnd),
            "Offset(0x200,0xffff)"},
           {"a node of another kind", EV_EFI_BOOT_SERVICES_DRIVER, imageData(node(1, 1, String{0, 0x1c}) + kEnd),
            "Path(1,1)"},
           {"an action", EV_EFI_ACTION, "Calling EFI Application from Boot Option",
            "Calling EFI Application from Boot Option"},
           {"a post code with its NUL", EV_POST_CODE, String("ACPI DATA\0", 10), "ACPI DATA"},
           {"a version in UTF-16", EV_S_CRTM_VERSION, utf16("1.0.4") + String(2, '\0'), "1.0.4"},
           {"a command line with control characters", EV_IPL, "linux\t/vmlinuz\x1b[2J\xff",
            "linux\\x09/vmlinuz\\x1b[2J\xef\xbf\xbd"},
           {"text that reorders what follows it", EV_S_CRTM_VERSION, String("A\0\x2e\x20", 4), "A\xef\xbf\xbd"},
           {"a long text", EV_ACTION, String(1000, 'a'), String(256, 'a') + "..."},
           {"no text of a separator", EV_SEPARATOR, String(4, '\0'), ""},

           {"variable data shorter than its header", EV_EFI_VARIABLE_BOOT, String(31, '\0'), ""},
           {"a name past the data", EV_EFI_VARIABLE_BOOT, variableData(5, 0, utf16("Boot")), ""},
           {"a name length that overflows", EV_EFI_VARIABLE_BOOT, variableData(std::uint64_t{1} << 63, 0, "A"),
            ""},
           {"a value past the data", EV_EFI_VARIABLE_BOOT, variableData(2, 3, utf16("db") + "ab"), ""},
           {"image data shorter than its header", EV_EFI_BOOT_SERVICES_APPLICATION, String(31, '\0'), ""},
           {"a device path past the data", EV_EFI_BOOT_SERVICES_APPLICATION,
            imageLoadData("\\EFI\\BOOT\\BOOTX64.EFI").substr(0, 60), ""},
           {"a device path length past the data", EV_EFI_BOOT_SERVICES_APPLICATION,
            imageData(fileNode("\\a.efi") + kEnd).replace(24, 1, 1, '\x21'), ""},
           {"a node of length 0", EV_EFI_BOOT_SERVICES_APPLICATION,
            imageData(fileNode("\\a.efi") + String{4, 4, 0, 0} + kEnd), ""},
           {"a node past the end of the path", EV_EFI_BOOT_SERVICES_APPLICATION,
            imageData(fileNode("\\a.efi") + String{4, 4, 0x40, 0}), ""},
           {"a node shorter than its header", EV_EFI_BOOT_SERVICES_APPLICATION, imageData(String{4, 4, 4}), ""},
           {"a file path of an odd byte count", EV_EFI_BOOT_SERVICES_APPLICATION,
            imageData(node(4, 4, utf16("\\a.efi") + "x") + kEnd), "\\a.efi"},
           {"a path with nothing but its end", EV_EFI_BOOT_SERVICES_APPLICATION, imageData(kEnd), ""},
           {"a binary post code", EV_POST_CODE, littleEndian(0xffc00000, 8) + littleEndian(0x400000, 8), ""},
           {"text with bytes after its NUL", EV_EFI_ACTION, String("Exit\0junk", 9), ""},
        }) {
      EXPECT_EQ(eventComponent(event(c.type, c.data)), c.component) << c.what;
   }
}
