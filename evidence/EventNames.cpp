#include "evidence/EventNames.h"

#include <algorithm>
#include <cstdio>

namespace SentrelEvidence {

namespace {

struct EventTypeName {
   std::uint32_t type;
   std::string_view name;
};

constexpr std::uint32_t EV_EFI_VARIABLE_BOOT2 = 0x8000000C;

constexpr EventTypeName kEventTypes[] = {
   {0x00000000, "EV_PREBOOT_CERT"},
   {EV_POST_CODE, "EV_POST_CODE"},
   {0x00000002, "EV_UNUSED"},
   {EV_NO_ACTION, "EV_NO_ACTION"},
   {EV_SEPARATOR, "EV_SEPARATOR"},
   {EV_ACTION, "EV_ACTION"},
   {0x00000006, "EV_EVENT_TAG"},
   {0x00000007, "EV_S_CRTM_CONTENTS"},
   {EV_S_CRTM_VERSION, "EV_S_CRTM_VERSION"},
   {0x00000009, "EV_CPU_MICROCODE"},
   {0x0000000A, "EV_PLATFORM_CONFIG_FLAGS"},
   {0x0000000B, "EV_TABLE_OF_DEVICES"},
   {0x0000000C, "EV_COMPACT_HASH"},
   {EV_IPL, "EV_IPL"},
   {0x0000000E, "EV_IPL_PARTITION_DATA"},
   {0x0000000F, "EV_NONHOST_CODE"},
   {0x00000010, "EV_NONHOST_CONFIG"},
   {0x00000011, "EV_NONHOST_INFO"},
   {0x00000012, "EV_OMIT_BOOT_DEVICE_EVENTS"},
   {0x00000013, "EV_POST_CODE2"},
   {EV_EFI_VARIABLE_DRIVER_CONFIG, "EV_EFI_VARIABLE_DRIVER_CONFIG"},
   {EV_EFI_VARIABLE_BOOT, "EV_EFI_VARIABLE_BOOT"},
   {EV_EFI_BOOT_SERVICES_APPLICATION, "EV_EFI_BOOT_SERVICES_APPLICATION"},
   {EV_EFI_BOOT_SERVICES_DRIVER, "EV_EFI_BOOT_SERVICES_DRIVER"},
   {EV_EFI_RUNTIME_SERVICES_DRIVER, "EV_EFI_RUNTIME_SERVICES_DRIVER"},
   {0x80000006, "EV_EFI_GPT_EVENT"},
   {EV_EFI_ACTION, "EV_EFI_ACTION"},
   {0x80000008, "EV_EFI_PLATFORM_FIRMWARE_BLOB"},
   {0x80000009, "EV_EFI_HANDOFF_TABLES"},
   {0x8000000A, "EV_EFI_PLATFORM_FIRMWARE_BLOB2"},
   {0x8000000B, "EV_EFI_HANDOFF_TABLES2"},
   {EV_EFI_VARIABLE_BOOT2, "EV_EFI_VARIABLE_BOOT2"},
   {0x8000000D, "EV_EFI_GPT_EVENT2"},
   {0x80000010, "EV_EFI_HCRTM_EVENT"},
   {EV_EFI_VARIABLE_AUTHORITY, "EV_EFI_VARIABLE_AUTHORITY"},
   {0x800000E1, "EV_EFI_SPDM_FIRMWARE_BLOB"},
   {0x800000E2, "EV_EFI_SPDM_FIRMWARE_CONFIG"},
   {0x800000E3, "EV_EFI_SPDM_DEVICE_POLICY"},
   {0x800000E4, "EV_EFI_SPDM_DEVICE_AUTHORITY"},
};

// A component longer than this is cut: it names a thing in a one-line
// warning, and firmware data is not trusted to be short.
constexpr std::size_t kMaxComponentBytes = 256;

// The little-endian integer of `size` bytes at `at`, the caller having
// checked that they are there.
std::uint64_t fieldAt(std::string_view data, std::size_t at, std::size_t size) {
   return littleEndian(data.substr(at, size));
}

// Appends a character in UTF-8; what is not one (half of a UTF-16 pair)
// as U+FFFD. Nothing is escaped here: whoever shows the text to people does
// that, and the text stays as the firmware wrote it for everyone else.
void appendUtf8(String &out, char32_t c) {
   if ((c >= 0xD800 && c < 0xE000) || c > 0x10FFFF) c = 0xFFFD;
   if (c < 0x80) {
      out += static_cast<char>(c);
   } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | c >> 6);
      out += static_cast<char>(0x80 | (c & 0x3F));
   } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | c >> 12);
      out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
   } else {
      out += static_cast<char>(0xF0 | c >> 18);
      out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
      out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
   }
}

// Cuts a text longer than kMaxComponentBytes at a character boundary.
String capped(String text) {
   if (text.size() <= kMaxComponentBytes) return text;
   std::size_t end = kMaxComponentBytes;
   // A UTF-8 character has at most three continuation bytes; raw 8-bit
   // text may have more in a row, and is then cut anywhere.
   for (int back = 0; back < 3 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80; ++back) --end;
   text.resize(end);
   return text + "...";
}

// Bytes (ASCII) or UTF-16LE code units as text. The text ends at
// its first NUL, and anything but NULs after that makes the data binary, not
// text: none then. An odd last byte of UTF-16 is no character.
String textOf(std::string_view bytes, bool utf16) {
   std::size_t const units = utf16 ? bytes.size() / 2 : bytes.size();
   auto const unit = [&](std::size_t i) -> char32_t {
      return utf16 ? static_cast<char32_t>(fieldAt(bytes, 2 * i, 2)) : static_cast<unsigned char>(bytes[i]);
   };
   std::size_t end = 0;
   while (end < units && unit(end) != 0) ++end;
   for (std::size_t i = end; i < units; ++i) {
      if (unit(i) != 0) return {};
   }
   String out;
   for (std::size_t i = 0; i < end && out.size() <= kMaxComponentBytes; ++i) {
      char32_t c = unit(i);
      bool const pair = utf16 && c >= 0xD800 && c < 0xDC00 && i + 1 < end && unit(i + 1) >= 0xDC00 &&
                        unit(i + 1) < 0xE000;
      if (pair) c = 0x10000 + ((c - 0xD800) << 10) + (unit(++i) - 0xDC00);
      if (utf16) {
         appendUtf8(out, c);
      } else {
         out += static_cast<char>(c);  // 8-bit text has no agreed encoding: its bytes as they are
      }
   }
   return capped(std::move(out));
}

// Action and version texts are ASCII, but some firmware writes its S-CRTM
// version in UTF-16LE: an even length whose first character has a zero high byte.
String actionText(std::string_view data) {
   bool const utf16 = data.size() >= 2 && data.size() % 2 == 0 && data[0] != 0 && data[1] == 0;
   return textOf(data, utf16);
}

String guidText(std::string_view g) {
   char text[40];
   std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                 static_cast<unsigned>(fieldAt(g, 0, 4)), static_cast<unsigned>(fieldAt(g, 4, 2)),
                 static_cast<unsigned>(fieldAt(g, 6, 2)), static_cast<unsigned char>(g[8]),
                 static_cast<unsigned char>(g[9]), static_cast<unsigned char>(g[10]),
                 static_cast<unsigned char>(g[11]), static_cast<unsigned char>(g[12]),
                 static_cast<unsigned char>(g[13]), static_cast<unsigned char>(g[14]),
                 static_cast<unsigned char>(g[15]));
   return text;
}

// A device path node in the UEFI text form where it says which image it is
// (a file of a firmware volume, a range of an option ROM), else its type.
String nodeDescription(std::string_view node) {
   auto const type = static_cast<unsigned char>(node[0]), subtype = static_cast<unsigned char>(node[1]);
   if (type == 4 && (subtype == 6 || subtype == 7) && node.size() >= 20) {
      return (subtype == 6 ? "FvFile(" : "Fv(") + guidText(node.substr(4, 16)) + ")";
   }
   char text[64];
   if (type == 4 && subtype == 8 && node.size() >= 24) {
      std::snprintf(text, sizeof text, "Offset(0x%llx,0x%llx)",
                    static_cast<unsigned long long>(fieldAt(node, 8, 8)),
                    static_cast<unsigned long long>(fieldAt(node, 16, 8)));
   } else {
      std::snprintf(text, sizeof text, "Path(%u,%u)", static_cast<unsigned>(type), static_cast<unsigned>(subtype));
   }
   return text;
}

// UEFI_IMAGE_LOAD_EVENT: the image's location, length and link-time address,
// then its device path's length and the device path. The path from its media
// file path nodes, or its last node when there is none.
String imagePath(std::string_view data) {
   constexpr std::size_t kHeader = 32;
   if (data.size() < kHeader) return {};
   std::uint64_t const length = fieldAt(data, 24, 8);
   if (length > data.size() - kHeader) return {};
   std::string_view path = data.substr(kHeader, length), last;
   String file;
   while (!path.empty()) {
      if (path.size() < 4) return {};
      std::size_t const nodeLength = fieldAt(path, 2, 2);
      if (nodeLength < 4 || nodeLength > path.size()) return {};
      std::string_view const node = path.substr(0, nodeLength);
      path.remove_prefix(nodeLength);
      if (static_cast<unsigned char>(node[0]) == 0x7F) break;  // the end of the path, or of its first instance
      if (node[0] == 4 && node[1] == 4) {
         String const piece = textOf(node.substr(4), true);
         // A long path comes in pieces, with or without their separators.
         if (!file.empty() && !piece.empty() && file.back() != '\\' && piece.front() != '\\') file += '\\';
         file += piece;
      }
      last = node;
   }
   if (!file.empty()) return capped(std::move(file));
   return last.empty() ? String() : nodeDescription(last);
}

// UEFI_VARIABLE_DATA: the vendor GUID, the lengths of the name (in
// characters) and of the value, the UTF-16 name, the value.
String variableName(std::string_view data) {
   constexpr std::size_t kHeader = 32;
   if (data.size() < kHeader) return {};
   std::uint64_t const nameChars = fieldAt(data, 16, 8), valueLength = fieldAt(data, 24, 8);
   std::size_t const room = data.size() - kHeader;
   if (nameChars > room / 2 || valueLength > room - nameChars * 2) return {};
   return textOf(data.substr(kHeader, nameChars * 2), true);
}

}  // namespace

String eventTypeName(std::uint32_t type) {
   for (auto const &t : kEventTypes) {
      if (t.type == type) return String(t.name);
   }
   char text[16];
   std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(type));
   return text;
}

std::optional<std::uint32_t> eventType(std::string_view name) {
   auto const upper = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; };
   for (auto const &t : kEventTypes) {
      if (std::ranges::equal(name, t.name, {}, upper)) return t.type;
   }
   return std::nullopt;
}

String eventComponent(Event const &event) {
   switch (event.type) {
      case EV_EFI_VARIABLE_DRIVER_CONFIG:
      case EV_EFI_VARIABLE_BOOT:
      case EV_EFI_VARIABLE_BOOT2:
      case EV_EFI_VARIABLE_AUTHORITY: return variableName(event.data);
      case EV_EFI_BOOT_SERVICES_APPLICATION:
      case EV_EFI_BOOT_SERVICES_DRIVER:
      case EV_EFI_RUNTIME_SERVICES_DRIVER: return imagePath(event.data);
      case EV_EFI_ACTION:
      case EV_ACTION:
      case EV_IPL:
      case EV_POST_CODE:
      case EV_S_CRTM_VERSION: return actionText(event.data);
      default: return {};
   }
}

}  // namespace SentrelEvidence
