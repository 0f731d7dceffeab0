#pragma once

#include <string>
#include <vector>

// Which control card answers, and of which chassis: from DMI, as the
// firmware describes the machine.
namespace SentrelAttestd {

using String = std::string;

struct CardIdentity {
   String manufacturer;  // sys_vendor
   String partNumber;    // product_name
   String serial;        // product_serial: the chassis's, which is the card's on a fixed switch
   // What could not be read, each naming the file and why.
   std::vector<String> problems;
};

// Reads /sys/class/dmi/id/{sys_vendor,product_name,product_serial} below
// `sysroot`; what cannot be read is left empty, with a problem.
CardIdentity readCardIdentity(String const &sysroot);

}  // namespace SentrelAttestd
