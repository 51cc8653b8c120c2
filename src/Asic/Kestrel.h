#pragma once
// Compact binary trace: each record is the name of a type and of an operation (both
// static strings, stored as pointers) plus a sequence number, kept in a fixed in-memory
// ring. Cheap enough to stay on in production; dumped on demand after a failure.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace Asic::Kestrel {

struct Record {
   std::uint64_t sequence;
   const char* typeName;   // static storage
   const char* operation;  // static storage
};

inline constexpr std::size_t kRingSize = 4096;

void record(const char* typeName, const char* operation) noexcept;

// The records still in the ring, oldest first.
std::vector<Record> snapshot();
void dump(std::FILE* out);
void clear() noexcept;

}  // namespace Asic::Kestrel
