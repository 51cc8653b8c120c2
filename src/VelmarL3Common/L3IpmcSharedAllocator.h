#pragma once
// The IPMC index space shared by every table that keys on L3IpmcKey: one lowest-first
// allocator per process, handed out by Asic::GenericIndexAllocatorStub.

#include <string>
#include <string_view>

#include "Asic/IndexAllocator.h"
#include "Asic/RefCounted.h"

namespace VelmarL3Common {

class L3IpmcSharedAllocator : public Asic::FirstFreeIndexAllocator {
 public:
   static constexpr std::string_view kTypeName = "VelmarL3Common::L3IpmcSharedAllocator";

   explicit L3IpmcSharedAllocator(std::string name);
   std::string_view allocatorTypeName() const override { return kTypeName; }

 protected:
   ~L3IpmcSharedAllocator() override;
};

Asic::Ptr<Asic::GenericIndexAllocator> l3IpmcSharedAllocatorFactory(std::string name);

// Registers the factory with GenericIndexAllocatorStub under kTypeName; safe to call any
// number of times. Also done when the library is loaded.
void registerL3IpmcSharedAllocator();

}  // namespace VelmarL3Common
