#include "VelmarMcast/MmuReplListL2SubPortTable.h"

namespace VelmarMcast {
namespace {
[[maybe_unused]] const bool kLibraryLoaded =
    Asic::SwTableLibrary<MmuReplListL2SubPortTable>::load();
}  // namespace
}  // namespace VelmarMcast
