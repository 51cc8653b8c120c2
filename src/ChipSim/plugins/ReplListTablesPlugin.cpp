// Plug-in: supplies the replication list and L2 sub-port tables' Utils for the simulated chip.
#include "Ancillary/Loader.h"
#include "ChipSim/plugins/MmuReplListL2SubPortTableSimUtil.h"
#include "ChipSim/plugins/MmuReplListTableSimUtil.h"

VELMAR_PLUGIN_INIT(registrar) {
   registrar.factoryIs(std::string(VelmarMcast::MmuReplListTable::kTypeName),
                       [] { return Asic::makePtr<ChipSim::MmuReplListTableSimUtil>(); });
   registrar.factoryIs(std::string(VelmarMcast::MmuReplListL2SubPortTable::kTypeName),
                       [] { return Asic::makePtr<ChipSim::MmuReplListL2SubPortTableSimUtil>(); });
}
