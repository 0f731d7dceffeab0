#pragma once

#include <memory>
#include <vector>

#include "attest/QuoteChecks.h"

// What the owner trusts, read from PEM text: attestation keys as
// `sentrel-attestd --print-ak` and `tpm2_createak -f pem` write them, and
// the CA that issues certificates for them. Every block of the text must be
// of the kind asked for and readable: nothing is passed over.
namespace SentrelAttest {

struct X509Free {
   void operator()(X509 *cert) const;
};
using Certificate = std::unique_ptr<X509, X509Free>;

struct X509StoreFree {
   void operator()(X509_STORE *store) const;
};
using CaStore = std::unique_ptr<X509_STORE, X509StoreFree>;

// Every public key ("BEGIN PUBLIC KEY") in `pem`, in order; empty with
// `problem` set when there is none or a block is anything else.
std::vector<PublicKey> readPublicKeys(String const &pem, String &problem);

// Every certificate ("BEGIN CERTIFICATE") in `pem`, in order; empty with
// `problem` set when there is none or a block is anything else.
std::vector<Certificate> readCertificates(String const &pem, String &problem);

// A store trusting every certificate in `pem`: a chain that reaches any of
// them is trusted, an intermediate CA too. Null with `problem` set, as
// readCertificates.
CaStore readCaStore(String const &pem, String &problem);

// Whether `pem` holds a private key that OpenSSL reads (TLS's client key);
// `problem` says why not.
bool holdsPrivateKey(String const &pem, String &problem);

}  // namespace SentrelAttest
