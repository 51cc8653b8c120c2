#include "VelmarL3Common/L3IpmcSharedAllocator.h"

#include <utility>

namespace VelmarL3Common {

L3IpmcSharedAllocator::L3IpmcSharedAllocator(std::string name)
    : Asic::FirstFreeIndexAllocator(std::move(name)) {}

L3IpmcSharedAllocator::~L3IpmcSharedAllocator() = default;

Asic::Ptr<Asic::GenericIndexAllocator> l3IpmcSharedAllocatorFactory(std::string name) {
   return Asic::sharedAllocatorFactory<L3IpmcSharedAllocator>(std::move(name));
}

void registerL3IpmcSharedAllocator() { Asic::registerSharedAllocator<L3IpmcSharedAllocator>(); }

namespace {
[[maybe_unused]] const bool kRegistered = (registerL3IpmcSharedAllocator(), true);
}  // namespace

}  // namespace VelmarL3Common
