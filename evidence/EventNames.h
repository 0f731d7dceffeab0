#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "evidence/EventLog.h"

// What an event of the firmware's log is, in the words of the TCG PC Client
// event types and of the event's own data.
namespace SentrelEvidence {

// "EV_SEPARATOR", "EV_EFI_BOOT_SERVICES_APPLICATION", ...; a type without a
// name as "0x%08x".
String eventTypeName(std::uint32_t type);
// The type a name stands for, in any case ("EV_IPL", "ev_ipl"); none for a
// name that is not one.
std::optional<std::uint32_t> eventType(std::string_view name);

// What the event says it measured, as the firmware wrote it (UTF-16 as
// UTF-8), at most a few hundred bytes and unescaped: the text's reader
// escapes it for people. the UEFI variable's name, the loaded image's file path
// (or its device path's last node), the action or version text. Empty for
// other types and for data that is malformed.
String eventComponent(Event const &event);

}  // namespace SentrelEvidence
