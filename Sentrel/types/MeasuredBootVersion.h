#pragma once

#include "Sentrel/platform/Entity.h"

namespace Sentrel {

// Measured boot versions of the bootloader and of the operating system image.
class LOOM_API MeasuredBootVersion : public Loom::Entity {
 public:
   struct Attr {
      enum : unsigned { tarnVersionFilePath, vexoVersionFilePath, tarn, vexo };
   };
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   Loom::String const &tarnVersionFilePath() const { return tarnVersionFilePath_; }
   void tarnVersionFilePathIs(Loom::String const &v) {
      assign(tarnVersionFilePath_, v, Attr::tarnVersionFilePath);
   }
   Loom::String const &vexoVersionFilePath() const { return vexoVersionFilePath_; }
   void vexoVersionFilePathIs(Loom::String const &v) {
      assign(vexoVersionFilePath_, v, Attr::vexoVersionFilePath);
   }
   Loom::String const &tarn() const { return tarn_; }
   void tarnIs(Loom::String const &v) { assign(tarn_, v, Attr::tarn); }
   Loom::String const &vexo() const { return vexo_; }
   void vexoIs(Loom::String const &v) { assign(vexo_, v, Attr::vexo); }

 protected:
   ~MeasuredBootVersion() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   Loom::String tarnVersionFilePath_ = "/run/tarn/measured-boot-version";
   Loom::String vexoVersionFilePath_ = "/etc/vexo/measured-boot.json";
   Loom::String tarn_;
   Loom::String vexo_;
};

}  // namespace Sentrel
