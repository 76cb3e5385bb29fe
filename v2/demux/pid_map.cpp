#include "v2/demux/pid_map.hpp"

namespace
{

constexpr size_t psi_assembly_bytes = 4096;

} // namespace

void register_psi(PIDmap& pm, uint16_t pid, uint32_t kind)
{
    PIDstate& state = pm.psi[pid];
    state.kind = kind;
    state.pid = pid;
    mpeg_ts_table_assembly_init(state.assembly, psi_assembly_bytes);
}
