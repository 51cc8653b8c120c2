// Plug-in: supplies the remap table's Util for the simulated chip.
#include "Ancillary/Loader.h"
#include "ChipSim/plugins/IngIpmcRemapTableSimUtil.h"

VELMAR_PLUGIN_INIT(registrar) {
   registrar.factoryIs(std::string(VelmarMcast::IngIpmcRemapTable::kTypeName),
                       [] { return Asic::makePtr<ChipSim::IngIpmcRemapTableSimUtil>(); });
}
