// A safetensors source keeps its file mapped for the life of the process, on purpose; a process that imports
// a million directories would run out of mappings. The linker sends mmap() and munmap() of the plug-in's code
// here (--wrap), so that a harness can release what an import left.
#pragma once

namespace zel::fuzz {

void releaseMappings();

}  // namespace zel::fuzz
