// Plug-in: supplies the replication head table's Util for the simulated chip.
#include "Ancillary/Loader.h"
#include "ChipSim/plugins/MmuReplHeadTableSimUtil.h"

VELMAR_PLUGIN_INIT(registrar) {
   registrar.factoryIs(std::string(VelmarMcast::MmuReplHeadTable::kTypeName),
                       [] { return Asic::makePtr<ChipSim::MmuReplHeadTableSimUtil>(); });
}
