#include "ChipSim/Faults.h"

#include <signal.h>
#include <unistd.h>

#include <utility>

namespace ChipSim {

bool Faults::operationFails() {
   if (plan_.failRate <= 0) return false;
   return std::uniform_real_distribution<double>(0, 1)(rng_) < plan_.failRate;
}

std::uint32_t Faults::completionDelay() {
   if (!plan_.reorder || plan_.delayTurns == 0) return plan_.delayTurns;
   return std::uniform_int_distribution<std::uint32_t>(0, plan_.delayTurns)(rng_);
}

void Faults::operationReached() {
   ++operations_;
   if (plan_.crashAfterWrites != 0 && operations_ == plan_.crashAfterWrites) {
      ::kill(::getpid(), SIGKILL);
   }
}

namespace {

class CountedMemory final : public Memory {
 public:
   CountedMemory(Asic::Ptr<Memory> inner, Asic::Ptr<Faults> faults)
       : Memory(inner->name(), inner->numEntries(), inner->entryWords()),
         inner_(std::move(inner)),
         faults_(std::move(faults)) {}

 protected:
   bool doRead(Asic::Index index, std::span<std::uint32_t> out) const override {
      return inner_->read(index, out);
   }
   void doWrite(Asic::Index index, Words words) override {
      inner_->write(index, words);
      faults_->operationReached(name(), index);
   }
   void doClear(Asic::Index index) override {
      inner_->clear(index);
      faults_->operationReached(name(), index);
   }
   void doForEachValid(const Visitor& fn) const override { inner_->forEachValid(fn); }

 private:
   Asic::Ptr<Memory> inner_;
   Asic::Ptr<Faults> faults_;
};

}  // namespace

Asic::Ptr<Memory> countedMemory(Asic::Ptr<Memory> inner, Asic::Ptr<Faults> faults) {
   return Asic::makePtr<CountedMemory>(std::move(inner), std::move(faults));
}

}  // namespace ChipSim
