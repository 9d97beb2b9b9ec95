// Seeds of the harnesses for ordinary torch.save checkpoints.
#pragma once

#include "seeds.h"

namespace zel::fuzz {

SeedSet torchZipSeeds();
SeedSet torchLegacySeeds();

}  // namespace zel::fuzz
