#include "attest/TrustAnchors.h"

#include <algorithm>
#include <climits>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

namespace SentrelAttest {

using SentrelEvidence::concat;

namespace {

struct BioFree {
   void operator()(BIO *bio) const { BIO_free(bio); }
};
using Bio = std::unique_ptr<BIO, BioFree>;

Bio memoryBio(String const &text) {
   return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(std::min<std::size_t>(text.size(), INT_MAX))));
}

String lastError() {
   unsigned long const e = ERR_peek_last_error();
   char text[256] = {};
   ERR_error_string_n(e, text, sizeof text);
   ERR_clear_error();
   return text;
}

struct PemBlock {
   String name;  // "PUBLIC KEY", "CERTIFICATE"
   String der;
};

// Every block of `pem`, in order; false with `problem` set when a block
// cannot be read.
bool readBlocks(String const &pem, std::vector<PemBlock> &blocks, String &problem) {
   Bio bio = memoryBio(pem);
   ERR_clear_error();
   while (bio) {
      char *name = nullptr, *header = nullptr;
      unsigned char *data = nullptr;
      long size = 0;
      if (PEM_read_bio(bio.get(), &name, &header, &data, &size) != 1) break;
      blocks.push_back({name, String(reinterpret_cast<char const *>(data), static_cast<std::size_t>(size))});
      OPENSSL_free(name);
      OPENSSL_free(header);
      OPENSSL_free(data);
   }
   unsigned long const e = ERR_peek_last_error();
   // Reading past the last block is how the text ends.
   if (bio && ERR_GET_LIB(e) == ERR_LIB_PEM && ERR_GET_REASON(e) == PEM_R_NO_START_LINE) {
      ERR_clear_error();
      return true;
   }
   problem = concat("PEM block ", blocks.size() + 1, ": ", e ? lastError() : String("cannot be read"));
   return false;
}

// The blocks of `pem`, each of them named `name`.
std::vector<PemBlock> blocksNamed(String const &pem, char const *name, String &problem) {
   std::vector<PemBlock> blocks;
   if (!readBlocks(pem, blocks, problem)) return {};
   for (std::size_t i = 0; i < blocks.size(); ++i) {
      if (blocks[i].name != name) {
         problem = concat("PEM block ", i + 1, " is a ", blocks[i].name, ", not a ", name);
         return {};
      }
   }
   if (blocks.empty()) problem = concat("no PEM ", name, " (BEGIN ", name, ") in it");
   return blocks;
}

}  // namespace

void X509Free::operator()(X509 *cert) const { X509_free(cert); }
void X509StoreFree::operator()(X509_STORE *store) const { X509_STORE_free(store); }

std::vector<PublicKey> readPublicKeys(String const &pem, String &problem) {
   std::vector<PublicKey> keys;
   auto const blocks = blocksNamed(pem, "PUBLIC KEY", problem);
   for (std::size_t i = 0; i < blocks.size(); ++i) {
      auto const *p = reinterpret_cast<unsigned char const *>(blocks[i].der.data());
      PublicKey key = publicKey(d2i_PUBKEY(nullptr, &p, static_cast<long>(blocks[i].der.size())));
      if (!key) {
         problem = concat("PEM block ", i + 1, ": not a public key OpenSSL reads: ", lastError());
         return {};
      }
      keys.push_back(std::move(key));
   }
   return keys;
}

std::vector<Certificate> readCertificates(String const &pem, String &problem) {
   std::vector<Certificate> certs;
   auto const blocks = blocksNamed(pem, "CERTIFICATE", problem);
   for (std::size_t i = 0; i < blocks.size(); ++i) {
      auto const *p = reinterpret_cast<unsigned char const *>(blocks[i].der.data());
      Certificate cert(d2i_X509(nullptr, &p, static_cast<long>(blocks[i].der.size())));
      if (!cert) {
         problem = concat("PEM block ", i + 1, ": not a certificate OpenSSL reads: ", lastError());
         return {};
      }
      certs.push_back(std::move(cert));
   }
   return certs;
}

CaStore readCaStore(String const &pem, String &problem) {
   auto const certs = readCertificates(pem, problem);
   if (certs.empty()) return nullptr;
   CaStore store(X509_STORE_new());
   for (auto const &cert : certs) {
      if (!store || X509_STORE_add_cert(store.get(), cert.get()) != 1) {
         problem = "cannot trust its certificates: " + lastError();
         return nullptr;
      }
   }
   X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
   return store;
}

bool holdsPrivateKey(String const &pem, String &problem) {
   Bio bio = memoryBio(pem);
   ERR_clear_error();
   EVP_PKEY *key = bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr;
   if (key) {
      EVP_PKEY_free(key);
      return true;
   }
   problem = "no PEM private key OpenSSL reads: " + lastError();
   return false;
}

}  // namespace SentrelAttest
