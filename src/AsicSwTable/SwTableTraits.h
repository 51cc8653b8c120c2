#pragma once
// The contract between the engine (SwTable::Accessor<T>) and a table T, and the compile-time
// properties that select variants of engine operations.
//
// What a table must provide (checked by SwTableContract, with a readable message each):
//   T::Key          copyable, registered with the type system, hashed, formatted
//   T::Value        its value (T::Entry, unless the table names its hardware entry so):
//                   default-constructible, copyable, identity ==, formatted
//   T::kTypeName    the table's full type name (trace handle, plug-in path, factory)
//   T::Util         its hardware hooks, derived from SwTableUtilT<T>
//   T::SharedAllocator   the allocator type the engine asks the shared factory for
//   T::Traits       isUnknownIndexTable, IndexPolicy (SwTableIndexPolicy.h), and the flags
//                   below; a trait that is absent is false.
// Optional hooks, each declared only with its Traits flag (a flag without its hook, or a hook
// without its flag, is refused, so that a misspelt hook cannot silently do nothing):
//   hasDependentFields: entries name other tables' entry handles
//     static forEachNeededEntryHandle(const Entry&, fn(const SwTableBase::EntryHandle*))
//     static resolveDependentFields(Entry&)   fills derived fields from the needed handles
//     static forEachDependentField(const Entry& swEntry, const Entry& syncedEntry,
//                                  fn(const SwTableBase::EntryHandle*, Index syncedValue))
//   hasEntryValidate: static entryValidate(const Entry&) refuses a value before anything
//     changes (throws std::invalid_argument naming what is wrong)
//   hasResolvedEntryMetaData: setResolvedEntryMetaData(const Entry&) const lays out a resolved
//     value's derived fields before it is stored
// Traits the engine does not implement are refused: hasRemoteAllocator, and
// tableNeedsDeleteDance = false.
// What every table gets from the engine and does not write: library load, the Util loader
// and factory (SwTableLibrary.h), hwResponseNeeded, entryWriteAtIndex, the Util's index
// look-ups. A table's source holds its key, entry, dependent fields, hooks and traits, and
// one line that loads it: `const bool loaded = Asic::SwTableLibrary<T>::load();`.

#include <concepts>
#include <cstdint>
#include <string_view>

#include <fmt/format.h>

#include "Asic/SwTableBase.h"
#include "Asic/TypeRegistry.h"
#include "Asic/Types.h"

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

// The key is the hardware index: no allocator (the port aggregation register).
template <typename T>
concept isKnownIndexTable = requires {
   requires T::Traits::isKnownIndexTable;
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

// entryWriteAtIndex on an index the allocator refuses still commits the value, which then
// takes whatever index the allocator gives it (the remap table's rule); without it the call
// throws std::invalid_argument and changes nothing.
template <typename T>
concept writeAtRefusedIndexCommits = requires {
   requires T::Traits::writeAtRefusedIndexCommits;
};

// Opt-in hooks (see the contract above).
template <typename T>
concept hasDependentFields = requires {
   requires T::Traits::hasDependentFields;
};
template <typename T>
concept hasEntryValidate = requires {
   requires T::Traits::hasEntryValidate;
};
template <typename T>
concept hasResolvedEntryMetaData = requires {
   requires T::Traits::hasResolvedEntryMetaData;
};

}  // namespace Trait

namespace Contract {

struct AnyHandleFn {
   void operator()(const SwTableBase::EntryHandle*) const {}
};
struct AnyFieldFn {
   void operator()(const SwTableBase::EntryHandle*, Index) const {}
};

template <typename T>
concept declaresDependentFields = requires(const typename T::Value& c, typename T::Value& e) {
   T::forEachNeededEntryHandle(c, AnyHandleFn{});
   T::resolveDependentFields(e);
   T::forEachDependentField(c, c, AnyFieldFn{});
};
template <typename T>
concept declaresEntryValidate = requires(const typename T::Value& e) {
   T::entryValidate(e);
};
template <typename T>
concept declaresResolvedEntryMetaData = requires(const T& t, const typename T::Value& e) {
   t.setResolvedEntryMetaData(e);
};

}  // namespace Contract

// The whole contract; the engine checks its parts one by one for a readable error.
template <typename T>
concept SwTableContract = requires {
   typename T::Key;
   typename T::Value;
   typename T::Util;
   typename T::Traits::IndexPolicy;
   // a table that allocates names its allocator type
   requires !T::Traits::IndexPolicy::usesAllocator || requires { typename T::SharedAllocator; };
   { T::kTypeName } -> std::convertible_to<std::string_view>;
}
&&SwTableKey<typename T::Key>&& SwTableEntry<typename T::Value>&& Trait::hasDependentFields<T> ==
        Contract::declaresDependentFields<T>&& Trait::hasEntryValidate<T> ==
        Contract::declaresEntryValidate<T>&& Trait::hasResolvedEntryMetaData<T> ==
        Contract::declaresResolvedEntryMetaData<T> &&
    !Trait::hasRemoteAllocator<T> && Trait::tableNeedsDeleteDance<T>;
}  // namespace Asic
