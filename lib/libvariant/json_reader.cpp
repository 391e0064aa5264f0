#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <utility>
#include <vector>

#include "sup_logger.h"
#include "variant.h"

namespace libvariant {
namespace {

constexpr std::size_t depth_limit = 256;
// Without recursion, so that a deep text can't exhaust the stack; numbers rounded as strtod does.
constexpr unsigned parse_flags = rapidjson::kParseIterativeFlag | rapidjson::kParseFullPrecisionFlag;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("Variant");
  return l;
}

// Takes the reader's events and builds the value. An event that returns false ends the parse.
class ValueBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ValueBuilder> {
 public:
  bool Null() { return add(Variant()); }
  bool Bool(bool value) { return add(value); }
  bool Int(int value) { return add(value); }
  bool Uint(unsigned value) { return add(static_cast<std::int64_t>(value)); }
  bool Int64(std::int64_t value) { return add(value); }
  bool Uint64(std::uint64_t value) {
    if (std::in_range<std::int64_t>(value))
      return add(static_cast<std::int64_t>(value));
    return add(value);
  }
  bool Double(double value) { return add(value); }
  bool String(const char* text, rapidjson::SizeType size, bool) { return add(std::string_view(text, size)); }
  bool Key(const char* text, rapidjson::SizeType size, bool) {
    open_.back().key.assign(text, size);
    return true;
  }
  bool StartObject() { return start(Variant::make_map()); }
  bool StartArray() { return start(Variant::make_list()); }
  bool EndObject(rapidjson::SizeType) { return end(); }
  bool EndArray(rapidjson::SizeType) { return end(); }

  bool too_deep() const { return too_deep_; }
  Variant take() { return std::move(root_); }

 private:
  struct Open {
    Variant container;
    std::string key;  // of the member that comes next
  };

  bool start(Variant container) {
    too_deep_ = open_.size() == depth_limit;
    if (!too_deep_)
      open_.push_back({std::move(container), {}});
    return !too_deep_;
  }
  bool end() {
    Variant done = std::move(open_.back().container);
    open_.pop_back();
    return add(std::move(done));
  }
  bool add(Variant value) {
    if (open_.empty())
      root_ = std::move(value);
    else if (open_.back().container.IsMap())
      open_.back().container.Assign(open_.back().key, std::move(value));
    else
      open_.back().container.Append(std::move(value));
    return true;
  }

  Variant root_;
  std::vector<Open> open_;
  bool too_deep_ = false;
};

}  // namespace

Variant Deserialize(std::string_view text) {
  rapidjson::MemoryStream stream(text.data(), text.size());
  rapidjson::Reader reader;
  ValueBuilder builder;
  const rapidjson::ParseResult result = reader.Parse<parse_flags>(stream, builder);
  // The reader takes a NUL for the end of the text.
  if (!result.IsError() && stream.Tell() == text.size())
    return builder.take();
  const char* reason = "Nested deeper than 256.";
  if (!builder.too_deep())
    reason = rapidjson::GetParseError_En(result.IsError() ? result.Code()
                                                          : rapidjson::kParseErrorDocumentRootNotSingular);
  SUP_LOG(logger(), log_level::error)
      << "Deserialize: text is no JSON, at offset " << (result.IsError() ? result.Offset() : stream.Tell())
      << ": " << reason;
  return {};
}

}  // namespace libvariant
