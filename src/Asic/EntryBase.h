#pragma once
// Base of table values that state how many hardware indices they occupy. The allocator of
// a block table asks the value itself, so a table with variable-sized entries needs no
// side channel for the size.

#include <cstdint>

namespace Asic {

class EntryBase {
 public:
   virtual ~EntryBase() = default;
   // Number of hardware indices the value occupies; never 0.
   virtual std::uint32_t getBlockSize() const { return 1; }

 protected:
   EntryBase() = default;
   EntryBase(const EntryBase&) = default;
   EntryBase(EntryBase&&) = default;
   EntryBase& operator=(const EntryBase&) = default;
   EntryBase& operator=(EntryBase&&) = default;
};

}  // namespace Asic
