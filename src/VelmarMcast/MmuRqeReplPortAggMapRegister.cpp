#include "VelmarMcast/MmuRqeReplPortAggMapRegister.h"

#include "Asic/Assert.h"
#include "Asic/TypeRegistry.h"

namespace VelmarMcast {
namespace {
[[maybe_unused]] const bool kLibraryLoaded =
    Asic::SwTableLibrary<MmuRqeReplPortAggMapRegister>::load();
[[maybe_unused]] const bool kEntryRegistered =
    (Asic::TypeRegistry::registerType<MmuRqeReplPortAggMapRegisterEntry>(), true);
}  // namespace

Asic::Ptr<const MmuRqeReplPortAggMapRegister::EntryHandle>
MmuRqeReplPortAggMapRegister::entryCommit(Asic::Index index, const Entry& entry) {
   auto eh = SwTableImpl::entryCommit(index, entry);
   const auto* resolved = resolvedEntry(index);
   if (eh->entryState() != Asic::SwTableBase::EntryState::unresolved || !resolved ||
       !resolved->has_value() || !(**resolved == entry)) {
      return eh;
   }
   // The value stands already (adopted from the chip, or equal to the one waiting): during
   // the replay it is reconciled with what the chip holds at the index; once the replay is
   // over the chip holds it, so nothing is written.
   if (configReplayInProgress()) {
      handleEntry(index);
   } else if (configReplayComplete()) {
      using State = Asic::SwTableBase::EntryState;
      EntryHandle* handle = entryHandle(index);
      handle->hwIndexIs(index);
      handle->resolvedEntryStateIs(State::success);
      handle->entryStateIs(State::success);
   }
   return eh;
}

void MmuRqeReplPortAggMapRegister::entryRemove(Asic::Index index) {
   if (!entryHandleHas(index)) {
      if (const auto* resolved = resolvedEntry(index); resolved && resolved->has_value()) {
         resolvedEntryDel(index);
      }
      return;
   }
   SwTableImpl::entryRemove(index);
}

Asic::Index MmuRqeReplPortAggMapRegister::minIndex() const {
   const auto* util = utilIfExists();
   return util && hwTable() ? util->minIndex(*hwTable()) : 0;
}

Asic::Index MmuRqeReplPortAggMapRegister::maxIndex() const {
   const auto* util = utilIfExists();
   return util && hwTable() ? util->maxIndex(*hwTable()) : 0xFFFFFFFFu;
}

void MmuRqeReplPortAggMapRegister::autoCommitSyncedEntries() {
   if (!autoCommit_) return;
   const auto& synced = syncedEntries();
   auto it = synced.begin();
   for (std::size_t n = synced.size(); n != 0; --n, ++it) {
      ASIC_ASSERT_TEXT(it != synced.end(), "syncedEntryIter != syncedEntry.end()",
                       "walked past the synced entries");
      // The marker of the write to come follows the index's handle, if a client has one.
      const EntryHandle* eh = entryHandle(it->first);
      reconciledIndexIs(
          eh && (eh->resolvedEntryState() == Asic::SwTableBase::EntryState::success ||
                 eh->resolvedEntryState() == Asic::SwTableBase::EntryState::indexReconciled));
      resolvedEntryAdopt(it->first, it->second);
   }
   reconciledIndexIs(false);
}

}  // namespace VelmarMcast
