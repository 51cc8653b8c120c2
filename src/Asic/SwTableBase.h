#pragma once
// The root of every software table and every entry handle. Kept below the engine so that
// the hardware layer (write responses) and other tables can talk to any table's handles
// without knowing the table.

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Asic/Assert.h"
#include "Asic/Observable.h"
#include "Asic/RefCounted.h"
#include "Asic/Types.h"

namespace Asic {

class SwTableBase : public RefCounted, public Observable {
 public:
   // Progress of one key's programming, as its clients see it.
   enum class EntryState : std::uint8_t {
      unresolved = 0,
      inProgress = 1,
      indexReconciled = 2,
      wontProgram = 3,
      success = 4,
      failedNeededEntry = 5,
      programFailed = 6,
   };
   static constexpr std::uint8_t kEntryStateCount = 7;

   class EntryHandle;
   // Told about state changes of the handles it watches (unresolved entries of dependents).
   class EntryHandleWatcher {
    public:
      virtual void neededEntryHandleStateIs(const EntryHandle* eh, EntryState state) = 0;

    protected:
      ~EntryHandleWatcher() = default;
   };

   class EntryHandle : public RefCounted, public Observable {
    public:
      EntryState entryState() const { return checked(entryState_); }
      // Stores the state, publishes it, tells watchers and dispatches handleEntryState().
      // An unchanged state is not dispatched again; use entryStateRepublish() for that.
      void entryStateIs(EntryState state);
      // Tells the client its current state once more.
      void entryStateRepublish();

      Index hwIndex() const noexcept { return hwIndex_; }
      void hwIndexIs(Index hwIndex) noexcept { hwIndex_ = hwIndex; }

      // Handles that wait for this one (unresolved entries of dependent tables).
      void watcherIs(EntryHandleWatcher* watcher);
      void watcherDel(EntryHandleWatcher* watcher) noexcept;
      std::size_t watchers() const noexcept { return watchers_ ? watchers_->size() : 0; }

      // Index that a dependent table writes into its entry for this handle.
      virtual Index hwIndexForDependentField() const { return hwIndex_; }
      // Dispatch of an entry-state change to the owning table.
      virtual void handleEntryState() {}
      // Suggested indices at restart (from a dependent table that read the hardware).
      virtual void handleIndexSuggestions(IndexSet indices) { (void)indices; }
      // Completion of this handle's outstanding hardware writes (write-response SM).
      virtual void hwWriteCompleted(bool ok) {
         entryStateIs(ok ? EntryState::success : EntryState::programFailed);
      }

      // A needed handle is usable by dependents in these states, failed in these.
      static bool isReady(EntryState s) noexcept {
         return s == EntryState::success || s == EntryState::indexReconciled ||
                s == EntryState::wontProgram;
      }
      static bool isFailed(EntryState s) noexcept {
         return s == EntryState::failedNeededEntry || s == EntryState::programFailed;
      }

    protected:
      EntryHandle() = default;
      ~EntryHandle() override;
      static EntryState checked(std::uint8_t raw) {
         ASIC_ASSERT_MSG(raw < kEntryStateCount, "invalid entry state");
         return static_cast<EntryState>(raw);
      }
      void notifyWatchers(EntryState state);

      std::uint8_t entryState_ = 0;  // EntryState, stored raw as the hardware model does
      // Three state bytes of a handle: the derived engine handle uses these two.
      std::uint8_t entryType_ = 0;
      std::uint8_t resolvedEntryState_ = 0;
      Index hwIndex_ = invalidIndex;

    private:
      std::vector<EntryHandleWatcher*>* watchers_ = nullptr;  // not owned; null when none
   };

   // The index of a handle as written into dependent entries.
   static Index getHwEntryIndex(const EntryHandle* eh) noexcept {
      return eh ? eh->hwIndex() : invalidIndex;
   }
   // Entry point for dependents and neighbours: suggest hardware indices to a handle.
   static void suggestIndicesToNeededEntryHandle(const EntryHandle* eh, IndexSet indices);

 protected:
   SwTableBase() = default;
   ~SwTableBase() override = default;
};

std::string_view toString(SwTableBase::EntryState state) noexcept;

// The client's completion callback, carried in each entry value.
using WriteResponseFn = std::function<void(SwTableBase::EntryState)>;

}  // namespace Asic

template <>
struct fmt::formatter<Asic::SwTableBase::EntryState> : fmt::formatter<std::string_view> {
   auto format(Asic::SwTableBase::EntryState s, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(Asic::toString(s), ctx);
   }
};
