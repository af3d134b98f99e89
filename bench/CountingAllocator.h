// A count of the heap that operator new hands out, for benchmarks that report
// heap per item. The program's operator new and delete are replaced; they
// count only while counting is switched on, and cost one load otherwise.
#pragma once

#include <cstddef>

namespace BenchHeap {

// Starts counting from zero.
void StartCounting();
// Stops counting; what was counted stays readable.
void StopCounting();
// The net change while counting: bytes of the blocks allocated less those
// freed, each as the allocator reserves it (usable size plus the block
// header), and the number of blocks likewise.
long long LiveBytes();
long long LiveBlocks();

}  // namespace BenchHeap
