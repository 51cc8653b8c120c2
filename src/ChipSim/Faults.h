#pragma once
// Faults of the simulated chip, for reliability tests of whatever runs over it: writes and
// deletes that fail (the memory keeps its old contents and the completion reports the
// failure), completions that arrive late or out of order, and a process that dies right
// after its N-th write or delete reached a memory. One plan per chip, drawn from one seed,
// so a faulty run repeats exactly.

#include <cstdint>
#include <functional>
#include <random>
#include <string>

#include "Asic/RefCounted.h"
#include "ChipSim/Memory.h"

namespace ChipSim {

struct FaultPlan {
   double failRate = 0;           // chance that a write or delete fails, 0..1
   std::uint32_t delayTurns = 0;  // completions come this many loop turns late
   bool reorder = false;          // each completion's lateness drawn from 0..delayTurns
   std::uint64_t seed = 1;
   std::uint64_t crashAfterWrites = 0;  // 0: never; else SIGKILL after that many writes
   bool observeWrites = false;          // count every write, so that it can be watched
};

class Faults : public Asic::RefCounted {
 public:
   explicit Faults(FaultPlan plan) : plan_(plan), rng_(plan.seed) {}

   const FaultPlan& plan() const noexcept { return plan_; }
   // Draws whether the operation about to reach a memory fails.
   bool operationFails();
   // Loop turns the next completion waits.
   std::uint32_t completionDelay();
   // Called after every write or delete that reached a memory; kills the process (SIGKILL,
   // nothing flushed, no clean-up) when it is the planned one.
   void operationReached();
   std::uint64_t operations() const noexcept { return operations_; }
   // Called after every write or delete that reached a memory (with observeWrites or a crash
   // planned), with the memory's name and the index.
   using Observer = std::function<void(const std::string& memory, Asic::Index index)>;
   void observerIs(Observer observer) { observer_ = std::move(observer); }
   void operationReached(const std::string& memory, Asic::Index index) {
      operationReached();
      if (observer_) observer_(memory, index);
   }

 private:
   FaultPlan plan_;
   std::mt19937_64 rng_;
   std::uint64_t operations_ = 0;
   Observer observer_;
};

// A memory whose writes and deletes are counted by `faults` (for the crash), forwarding to
// `inner`.
Asic::Ptr<Memory> countedMemory(Asic::Ptr<Memory> inner, Asic::Ptr<Faults> faults);

}  // namespace ChipSim
