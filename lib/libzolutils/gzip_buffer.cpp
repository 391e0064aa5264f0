// zol::Helper::gzip_buffer.
#include <libdeflate.h>

#include <array>
#include <memory>
#include <new>

#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr int lowest_level = 1;
constexpr int highest_level = 12;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("Helper");
  return l;
}

struct FreeCompressor {
  void operator()(libdeflate_compressor* compressor) const { libdeflate_free_compressor(compressor); }
};

// A compressor's tables cost up to a megabyte to make, and each report needs one: kept for each level in use.
libdeflate_compressor* get_compressor(int level) {
  static std::array<std::unique_ptr<libdeflate_compressor, FreeCompressor>, highest_level + 1> kept;
  auto& compressor = kept.at(static_cast<std::size_t>(level));
  if (!compressor)
    compressor.reset(libdeflate_alloc_compressor(level));
  return compressor.get();
}

}  // namespace

bool Helper::gzip_buffer(const std::string& in, int level, unsigned char** out, long& out_size) {
  *out = nullptr;
  out_size = 0;
  libdeflate_compressor* compressor =
      level < lowest_level || level > highest_level ? nullptr : get_compressor(level);
  if (compressor == nullptr) {
    SUP_LOG(logger(), log_level::error) << "gzip_buffer: no compressor for level " << level;
    return false;
  }
  const std::size_t bound = libdeflate_gzip_compress_bound(compressor, in.size());
  std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[bound]);
  const std::size_t size =
      buffer ? libdeflate_gzip_compress(compressor, in.data(), in.size(), buffer.get(), bound) : 0;
  if (size == 0) {
    SUP_LOG(logger(), log_level::error) << "gzip_buffer: couldn't compress " << in.size() << " bytes";
    return false;
  }
  *out = buffer.release();
  out_size = static_cast<long>(size);
  return true;
}

}  // namespace zol
