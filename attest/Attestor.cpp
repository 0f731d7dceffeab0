#include "attest/Attestor.h"

namespace SentrelAttestd {

using SentrelTpm::PcrQuote;
using SentrelTpm::TpmConnection;
using SentrelTpm::TpmProblem;

namespace {

grpc::Status statusOf(TpmProblem const &problem) {
   switch (problem.kind) {
      case TpmProblem::Kind::BankNotEnabled: return {grpc::StatusCode::FAILED_PRECONDITION, problem.why};
      case TpmProblem::Kind::NoKey:
         return {grpc::StatusCode::UNAVAILABLE, problem.why + ": make it with sentrel-attestd --create-ak"};
      default: return {grpc::StatusCode::UNAVAILABLE, problem.why};
   }
}

}  // namespace

Attestor::Attestor(AttestorSetup setup)
    : setup_(std::move(setup)), eventLog_(setup_.eventLogPath, setup_.eventLogShown) {}

Attestor::~Attestor() { disconnect(); }

void Attestor::forgetAk() {
   if (ak_ && tpm_) Esys_TR_Close(tpm_->esys(), &*ak_);
   ak_.reset();
}

void Attestor::disconnect() {
   forgetAk();
   tpm_.reset();
}

std::optional<TpmProblem> Attestor::connect() {
   if (!tpm_) {
      auto tpm = std::make_unique<TpmConnection>(setup_.tcti.conf, setup_.commandTimeout, setup_.tcti.name);
      if (!tpm->esys()) {
         return TpmProblem{TpmProblem::Kind::Tpm,
                           "cannot reach the TPM through " + setup_.tcti.name + ": " + tpm->responseText(tpm->failure()),
                           tpm->failure()};
      }
      tpm_ = std::move(tpm);
   }
   if (!ak_) {
      auto loaded = SentrelTpm::loadAttestationKey(*tpm_, setup_.akHandle);
      if (auto *problem = std::get_if<TpmProblem>(&loaded)) return std::move(*problem);
      ak_ = std::get<SentrelTpm::LoadedAk>(loaded).object;
   }
   return std::nullopt;
}

std::variant<PcrQuote, TpmProblem> Attestor::quote(QuoteWanted const &wanted) {
   for (int attempt = 0;; ++attempt) {
      std::optional<TpmProblem> problem = connect();
      if (!problem) {
         auto q = SentrelTpm::quotePcrs(*tpm_, *ak_, wanted.quoteRequest());
         if (auto *p = std::get_if<PcrQuote>(&q)) return std::move(*p);
         problem = std::move(std::get<TpmProblem>(q));
      }
      if (problem->kind != TpmProblem::Kind::Tpm) return std::move(*problem);
      // After a response that never came, or a connection that broke, ESYS
      // takes no further command: the next one starts anew. A key that
      // failed is looked up again, in case it was replaced or removed.
      if (TpmConnection::answered(problem->rc)) {
         forgetAk();
      } else {
         disconnect();
      }
      // Once more at once: a TPM restarted since the last request answers
      // a new connection; one that did not answer in time is not waited for twice.
      if (attempt > 0 || TpmConnection::tryAgain(problem->rc)) return std::move(*problem);
   }
}

grpc::Status Attestor::attest(QuoteWanted const &wanted, AttestResponse &response) {
   // The log first: without it the quote cannot be judged, and the TPM is spared.
   auto log = eventLog_.canonicalJson();
   if (auto const *why = std::get_if<String>(&log)) return {grpc::StatusCode::UNAVAILABLE, *why};
   auto q = quote(wanted);
   if (auto const *problem = std::get_if<TpmProblem>(&q)) return statusOf(*problem);
   auto &quote = std::get<PcrQuote>(q);

   auto &card = *response.mutable_control_card_id();
   card.set_control_card_role(openconfig::attestz::CONTROL_CARD_ROLE_ACTIVE);
   card.set_control_card_serial(setup_.card.serial);
   card.set_chassis_manufacturer(setup_.card.manufacturer);
   card.set_chassis_part_number(setup_.card.partNumber);
   card.set_chassis_serial_number(setup_.card.serial);
   auto &values = *response.mutable_pcr_values();
   for (auto &[index, value] : quote.values) values[static_cast<std::int32_t>(index)] = std::move(value);
   response.set_quoted(std::move(quote.quoted));
   response.set_quote_signature(std::move(quote.signature));
   if (!setup_.akCertPem.empty()) response.mutable_attestation_cert()->set_oiak_cert(setup_.akCertPem);
   response.set_eventlog_bytes(*std::get<std::shared_ptr<String const>>(log));
   return grpc::Status::OK;
}

}  // namespace SentrelAttestd
