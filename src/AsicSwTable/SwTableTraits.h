#pragma once
// Compile-time properties of a table, each selecting one variant of an engine operation.
// A table opts in by declaring the member in its `Traits` struct; absent means false.
//
// What a table type T must provide to be driven by SwTable::Accessor<T> (see SwTableEntry
// concept below for the entry):
//   T::Key, T::Entry, T::kTypeName (full type name), T::Util (derived from
//   SwTable::TableUtil<T>), T::SharedAllocator (the allocator type it asks the factory for),
//   and three static hooks over its dependent fields:
//     forEachNeededEntryHandle(const Entry&, fn(const SwTableBase::EntryHandle*))
//     resolveDependentFields(Entry&)  (fills derived fields from the needed handles)
//     forEachDependentField(const Entry& swEntry, const Entry& syncedEntry,
//                           fn(const SwTableBase::EntryHandle*, Index syncedValue))

#include <concepts>
#include <cstdint>

#include <fmt/format.h>

#include "Asic/SwTableBase.h"
#include "Asic/TypeRegistry.h"

namespace Asic {

// A table's value type: identity equality and a text form. A value may carry the client's
// write-response callback (member `writeResponseFn`); the engine calls it when present.
template <typename E>
concept SwTableEntry = std::default_initializable<E> && std::copyable<E> && requires(const E& e) {
   { e == e } -> std::convertible_to<bool>;
   {fmt::format("{}", e)};
};

template <typename E>
concept HasWriteResponseFn = requires(const E& e) {
   { e.writeResponseFn } -> std::convertible_to<WriteResponseFn>;
};

template <typename K>
concept SwTableKey = RegisteredType<K> && std::copyable<K>;

namespace Trait {

// The table chooses hardware indices itself through an allocator.
template <typename T>
concept isUnknownIndexTable = requires {
   requires T::Traits::isUnknownIndexTable;
};

// Indices come from another agent: no local reconciliation by index, no suggestions.
template <typename T>
concept hasRemoteAllocator = requires {
   requires T::Traits::hasRemoteAllocator;
};

// Removal of a programmed key waits for the hardware to confirm the delete.
template <typename T>
concept tableNeedsDeleteDance = !requires {
   requires !T::Traits::tableNeedsDeleteDance;
};

// Entries occupy a block of indices whose size the entry states.
template <typename T>
concept getBlockSizeDefinedByUser = requires {
   requires T::Traits::getBlockSizeDefinedByUser;
};

// A suggestion naming an index that a key already owns is a programming error (the table's
// dependents never share an index), not a candidate to pass over.
template <typename T>
concept suggestedIndexMustBeFree = requires {
   requires T::Traits::suggestedIndexMustBeFree;
};

}  // namespace Trait
}  // namespace Asic
