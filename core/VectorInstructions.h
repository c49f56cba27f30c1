// Declares the kernels that use vector instructions. Only VectorKernels.cpp and its implementations include
// this.
#pragma once

#include <vector>

#include "core/VectorKernels.h"

namespace palaver {

// Appends the kernels of this architecture that this processor runs, the fastest last.
void addVectorInstructionKernels(std::vector<const VectorKernels*>& found);

}  // namespace palaver
