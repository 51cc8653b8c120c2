#pragma once
// The root of every software table and every entry handle. Kept below the engine so that
// the hardware layer (write responses) and other tables can talk to any table's handles
// without knowing the table.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <type_traits>
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
      friend class WriteResponseSm;

    public:
      EntryState entryState() const { return checked(entryState_); }
      // Stores the state, publishes it, tells watchers and dispatches handleEntryState().
      // An unchanged state is not dispatched again; use entryStateRepublish() for that.
      void entryStateIs(EntryState state);
      // Tells the client its current state once more.
      void entryStateRepublish();

      Index hwIndex() const noexcept { return hwIndex_; }
      void hwIndexIs(Index hwIndex) noexcept { hwIndex_ = hwIndex; }

      // Handles that wait for this one (unresolved entries of dependent tables). Few handles
      // are waited for at once, so they live in a process-wide side table; a handle keeps a
      // flag.
      void watcherIs(EntryHandleWatcher* watcher);
      void watcherDel(EntryHandleWatcher* watcher) noexcept;
      std::size_t watchers() const noexcept;

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

      // Laid out to fill the bases' tail: a table keeps a million handles.
      std::uint8_t entryState_ = 0;  // EntryState, stored raw as the hardware model does
      // Three state bytes of a handle: the derived engine handle uses these two, and keeps
      // a flag of its own beside the entry type.
      std::uint8_t entryType_ : 2 = 0;
      std::uint8_t engineFlags_ : 5 = 0;
      std::uint8_t watched_ : 1 = 0;  // the side table holds watchers of this handle
      std::uint8_t resolvedEntryState_ = 0;
      Index hwIndex_ = invalidIndex;

    private:
      // The handle's writes still outstanding at its table's write-response SM, kept here so
      // that a write and its response find them without a look-up. Tickets only grow, so a
      // ticket belongs to the newest programming exactly when it is not older than `newest`
      // (compared modulo 2^32: the tickets outstanding at once span far less than 2^31).
      struct WriteProgress {
         std::uint32_t newest = 0;           // first ticket of the newest programming, mod 2^32
         std::uint32_t writes = 0;           // of the newest programming
         std::uint32_t superseded : 31 = 0;  // of older programmings, absorbed when they complete
         std::uint32_t failed : 1 = 0;       // some write of the newest programming failed
      };

      WriteProgress writeProgress_;
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

// The client's completion callback, carried in each entry value. Values are copied into
// several of a table's records and kept for every key, so the callback is shared, not
// copied: one pointer per value, and a copy is a count. Empty when default-constructed or
// made from an empty std::function or a null function pointer.
class WriteResponseFn {
 public:
   using Signature = void(SwTableBase::EntryState);

   WriteResponseFn() noexcept = default;
   WriteResponseFn(std::nullptr_t) noexcept {}
   template <typename F>
   requires(!std::is_same_v<std::remove_cvref_t<F>, WriteResponseFn> &&
            std::is_invocable_v<std::remove_cvref_t<F>&, SwTableBase::EntryState>)
       WriteResponseFn(F&& fn) {
      using Fn = std::remove_cvref_t<F>;
      if constexpr (std::is_pointer_v<Fn> || std::is_same_v<Fn, std::function<Signature>>) {
         if (!fn) return;
      }
      box_ = makePtr<const Box<Fn>>(std::forward<F>(fn));
   }

   explicit operator bool() const noexcept { return box_ != nullptr; }
   void operator()(SwTableBase::EntryState state) const { box_->call(state); }

 private:
   struct Callable : RefCounted {
      virtual void call(SwTableBase::EntryState state) const = 0;
   };
   template <typename Fn>
   struct Box final : Callable {
      template <typename G>
      explicit Box(G&& g) : fn(std::forward<G>(g)) {}
      void call(SwTableBase::EntryState state) const override { fn(state); }
      mutable Fn fn;  // a callback may keep state of its own
   };

   Ptr<const Callable> box_;
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::SwTableBase::EntryState> : fmt::formatter<std::string_view> {
   auto format(Asic::SwTableBase::EntryState s, format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(Asic::toString(s), ctx);
   }
};
