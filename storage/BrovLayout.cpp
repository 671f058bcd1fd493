#include "storage/BrovLayout.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

void createEntry(GPTEntry& entry, const GPTHeader& header, std::uint64_t blocks) {
  std::copy(platform::gpt::kMarlPartitionType.begin(), platform::gpt::kMarlPartitionType.end(),
            entry.typeGUID().begin());
  auto unique = platform::gpt::randomUuid();
  std::copy(unique.begin(), unique.end(), entry.uniqueGUID().begin());
  // "New" and a terminating zero unit; the rest of the field is left as it is.
  const char name[] = {'N', 'e', 'w', '\0'};
  for (std::size_t i = 0; i < sizeof name; ++i) {
    entry.name()[2 * i] = static_cast<std::uint8_t>(name[i]);
    entry.name()[2 * i + 1] = 0;
  }
  // Placed past the end so that it sorts after every existing partition.
  entry.setFirstLBA(header.lastUsableLBA() + 1);
  entry.setLastLBA(header.lastUsableLBA() + blocks);
}

}  // namespace

int brovAdjustPartition(const BrovMediaGeometry* geometry, GPTHeader* header, GPTEntryTable* table,
                        std::int32_t index, std::uint64_t newSize) {
  const std::uint64_t blockSize = geometry->blockSize;
  const std::uint64_t blocks = (newSize + blockSize - 1) / blockSize;
  std::int32_t count = header->entryCount();
  // A count outside the table (from an untrusted header) is refused like an
  // index outside it, so nothing beyond the eight entries is ever touched.
  if (static_cast<std::uint32_t>(index) > 7 ||
      static_cast<std::uint32_t>(count) < static_cast<std::uint32_t>(index) || count < 0 ||
      count > static_cast<std::int32_t>(table->size())) {
    std::fprintf(stderr, "brov: cannot adjust partition %d - out of range\n", index);
    return -1;
  }
  GPTEntryTable& entries = *table;
  if (index == count) {
    if (blocks == 0) {
      std::fputs("brov: cannot create zero-sized partition\n", stderr);
      return -1;
    }
    createEntry(entries[index], *header, blocks);
    count = index + 1;
  } else if (blocks == 0) {
    for (std::int32_t i = index; i + 1 < count; ++i) entries[i] = entries[i + 1];
    --count;
    entries[count] = GPTEntry{};
  } else {
    entries[index].setLastLBA(entries[index].firstLBA() + blocks - 1);
  }

  // Bubble sort of the indices by first block; equal starts keep table order.
  std::int32_t order[8];
  for (std::int32_t i = 0; i < count; ++i) order[i] = i;
  for (bool swapped = true; swapped;) {
    swapped = false;
    for (std::int32_t i = 0; i + 1 < count; ++i) {
      if (entries[order[i]].firstLBA() > entries[order[i + 1]].firstLBA()) {
        std::swap(order[i], order[i + 1]);
        swapped = true;
      }
    }
  }

  std::uint64_t next = header->firstUsableLBA();
  for (std::int32_t i = 0; i < count; ++i) {
    GPTEntry& e = entries[order[i]];
    const std::uint64_t span = e.lastLBA() - e.firstLBA();
    e.setFirstLBA(next);
    e.setLastLBA(next + span);
    next = e.lastLBA() + 1;
  }

  const std::uint64_t limit = header->lastUsableLBA() + 1;
  if (next <= limit) {
    header->setEntryCount(count);
    return 0;
  }
  std::fprintf(stderr, "brov: new layout does not fit, overflows by 0x%llx blocks\n",
               static_cast<unsigned long long>(next - limit));
  return -1;
}
