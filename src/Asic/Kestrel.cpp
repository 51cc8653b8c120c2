#include "Asic/Kestrel.h"

#include <array>

namespace Asic::Kestrel {
namespace {

struct Ring {
   std::array<Record, kRingSize> records{};
   std::uint64_t next = 0;
};

Ring& ring() noexcept {
   static Ring r;
   return r;
}

}  // namespace

void record(const char* typeName, const char* operation) noexcept {
   Ring& r = ring();
   r.records[r.next % kRingSize] = Record{r.next, typeName, operation};
   ++r.next;
}

std::vector<Record> snapshot() {
   Ring& r = ring();
   std::vector<Record> out;
   std::uint64_t first = r.next > kRingSize ? r.next - kRingSize : 0;
   out.reserve(r.next - first);
   for (std::uint64_t s = first; s < r.next; ++s) out.push_back(r.records[s % kRingSize]);
   return out;
}

void dump(std::FILE* out) {
   for (const Record& rec : snapshot()) {
      std::fprintf(out, "%llu %s %s\n", static_cast<unsigned long long>(rec.sequence), rec.typeName,
                   rec.operation);
   }
}

void clear() noexcept { ring().next = 0; }

}  // namespace Asic::Kestrel
