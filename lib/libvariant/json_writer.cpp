#include <rapidjson/prettywriter.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>

#include "text_stream.h"
#include "utf8.h"
#include "variant_access.h"

namespace libvariant {
namespace {

constexpr int most_digits = 17;  // enough to read the same double back

// How many bytes the text of a value takes, near enough: the stream grows when it isn't. One allocation then
// holds the text of a report of a hundred thousand sessions, where growth by steps would touch three times
// its memory.
class SizeEstimate {
 public:
  explicit SizeEstimate(bool pretty) : pretty_(pretty) {}

  std::size_t of(const Variant& value, std::size_t depth = 1) const {
    switch (value.kind()) {
      case Variant::Kind::Signed:
        return 1 + digits_of(magnitude(VariantAccess::number(value)));
      case Variant::Kind::Unsigned:
        return digits_of(VariantAccess::natural(value));
      case Variant::Kind::String:
        return VariantAccess::text(value).size() + 2;
      case Variant::Kind::List:
        return around(depth) + of_list(VariantAccess::list(value), depth);
      case Variant::Kind::Map: {
        std::size_t size = around(depth);
        for (const MapEntry& entry : VariantAccess::map(value).entries())
          size += before(depth) + entry.key().size() + 4 + of(entry.value, depth + 1);
        return size;
      }
      default:
        return 8;
    }
  }

 private:
  static std::uint64_t magnitude(std::int64_t number) {
    return number < 0 ? -static_cast<std::uint64_t>(number) : static_cast<std::uint64_t>(number);
  }
  static std::size_t digits_of(std::uint64_t number) {
    return (static_cast<std::size_t>(std::bit_width(number)) * 1233 >> 12) + 1;  // log10(2) is 1233/4096
  }
  // A long list by a sample of its elements, and a little over.
  std::size_t of_list(const Variant::List& list, std::size_t depth) const {
    const std::size_t step = list.size() / sample + 1;
    std::size_t sampled = 0;
    std::size_t size = 0;
    for (std::size_t i = 0; i < list.size(); i += step, ++sampled)
      size += before(depth) + of(list[i], depth + 1);
    if (step == 1)
      return size;
    return static_cast<std::size_t>(static_cast<double>(size) / static_cast<double>(sampled) *
                                    static_cast<double>(list.size()) * 1.05);
  }
  // The comma, the line feed and the blanks before an element.
  std::size_t before(std::size_t depth) const { return pretty_ ? 2 + 4 * depth : 1; }
  std::size_t around(std::size_t depth) const { return pretty_ ? 3 + 4 * depth : 2; }

  static constexpr std::size_t sample = 256;
  bool pretty_;
};

template <typename Writer>
class ValueWriter {
 public:
  ValueWriter(TextStream& stream, int precision) : writer_(stream), precision_(precision) {}

  void write(const Variant& value) {
    switch (value.kind()) {
      case Variant::Kind::Null:
        writer_.Null();
        break;
      case Variant::Kind::Bool:
        writer_.Bool(VariantAccess::boolean(value));
        break;
      case Variant::Kind::Signed:
        writer_.Int64(VariantAccess::number(value));
        break;
      case Variant::Kind::Unsigned:
        writer_.Uint64(VariantAccess::natural(value));
        break;
      case Variant::Kind::Double:
        write_double(VariantAccess::real(value));
        break;
      case Variant::Kind::String:
        write_text(as_utf8(VariantAccess::text(value), corrected_));
        break;
      case Variant::Kind::List:
        write_list(VariantAccess::list(value));
        break;
      case Variant::Kind::Map:
        write_map(VariantAccess::map(value));
        break;
    }
  }

 private:
  void write_double(double value) {
    char digits[64];
    const double finite = std::isfinite(value) ? value : 0.0;
    const auto end =
        std::to_chars(digits, digits + sizeof(digits), finite, std::chars_format::general, precision_);
    writer_.RawValue(digits, static_cast<std::size_t>(end.ptr - digits), rapidjson::kNumberType);
  }

  void write_text(std::string_view text) {
    writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  }

  void write_list(const Variant::List& list) {
    writer_.StartArray();
    for (const Variant& element : list)
      write(element);
    writer_.EndArray();
  }

  void write_map(const VariantMap& map) {
    writer_.StartObject();
    for (const MapEntry& entry : map.entries()) {
      write_text(entry.has_literal_key() ? entry.key() : as_utf8(entry.key(), corrected_));
      write(entry.value);
    }
    writer_.EndObject();
  }

  Writer writer_;
  int precision_;
  std::string corrected_;
};

int precision_of(const Variant& parameters) {
  const Variant& wanted = parameters.At("precision");
  if (wanted.IsNull())
    return most_digits;
  return static_cast<int>(std::clamp<std::int64_t>(wanted.AsInt(), 1, most_digits));
}

}  // namespace

std::string Serialize(const Variant& value, const Variant& parameters) {
  const bool pretty = parameters.At("pretty").AsBool();
  TextStream stream(SizeEstimate(pretty).of(value));
  if (pretty)
    ValueWriter<rapidjson::PrettyWriter<TextStream>>(stream, precision_of(parameters)).write(value);
  else
    ValueWriter<rapidjson::Writer<TextStream>>(stream, precision_of(parameters)).write(value);
  return stream.take();
}

}  // namespace libvariant
