// Two table-driven CRC-64 functions, one byte per step. The tables are computed at compile time.

#include <array>
#include <cstddef>
#include <cstdint>

#include "velmarin/primitives.h"

namespace velmarin {
namespace {

using crc64_table = std::array<uint64_t, 256>;

constexpr uint64_t ECMA_182_POLYNOMIAL = 0x42F0E1EBA9EA3693;
constexpr uint64_t NVME_POLYNOMIAL_REFLECTED = 0x9A6C9329AC4BC9B5;

consteval crc64_table table_most_significant_bit_first(uint64_t polynomial) {
  crc64_table table = {};
  for (uint64_t byte = 0; byte < table.size(); byte++) {
    uint64_t crc = byte << 56;
    for (int bit = 0; bit < 8; bit++) {
      crc = (crc >> 63) != 0 ? (crc << 1) ^ polynomial : crc << 1;
    }
    table[byte] = crc;
  }
  return table;
}

consteval crc64_table table_least_significant_bit_first(uint64_t polynomial) {
  crc64_table table = {};
  for (uint64_t byte = 0; byte < table.size(); byte++) {
    uint64_t crc = byte;
    for (int bit = 0; bit < 8; bit++) {
      crc = (crc & 1) != 0 ? (crc >> 1) ^ polynomial : crc >> 1;
    }
    table[byte] = crc;
  }
  return table;
}

constexpr crc64_table ECMA_182_TABLE = table_most_significant_bit_first(ECMA_182_POLYNOMIAL);
constexpr crc64_table NVME_TABLE = table_least_significant_bit_first(NVME_POLYNOMIAL_REFLECTED);

}  // namespace
}  // namespace velmarin

uint64_t crc64_be(uint64_t crc, const void *p, size_t len) {
  const auto *bytes = static_cast<const uint8_t *>(p);
  for (size_t i = 0; i < len; i++) {
    crc = velmarin::ECMA_182_TABLE[(crc >> 56) ^ bytes[i]] ^ (crc << 8);
  }
  return crc;
}

uint64_t crc64_rocksoft_generic(uint64_t crc, const void *p, size_t len) {
  const auto *bytes = static_cast<const uint8_t *>(p);
  crc = ~crc;
  for (size_t i = 0; i < len; i++) {
    crc = velmarin::NVME_TABLE[(crc & 0xFF) ^ bytes[i]] ^ (crc >> 8);
  }
  return ~crc;
}
