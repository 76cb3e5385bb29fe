// What the master playlist says, brought up to date with each segment. A pure function of records.
#pragma once

#include <string>
#include <vector>

#include "publisher/ladder/gathering.hpp"
#include "publisher/text/presentation.hpp"

// `p` lists the segment already. `rungs` are the names of all, `shared` the tracks of the segment
// that they share.
master_facts updated_master(const presentation& p, const planned_segment& plan,
                            const std::vector<std::string>& rungs,
                            const std::vector<track>& shared);
