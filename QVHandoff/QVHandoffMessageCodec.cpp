// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffMessageCodec.h"

#include "Foundation/QVLog.h"
#include "QVHandoff/QVHandoffAES256Data.h"

#include <cmath>
#include <vector>

QV_LOG_SOURCE("QVHandoff/QVHandoffMessageCodec")

using json = nlohmann::json;

namespace {

// Only what a peer's reader takes: an array or object of plain JSON values. Binary values have no JSON
// text, and NaN or infinities would be written as null and read back as something else. Walked with a
// stack so that deep nesting cannot exhaust ours.
bool isValidMessage(const json& object) {
  if (!object.is_structured()) return false;
  std::vector<const json*> pending{&object};
  while (!pending.empty()) {
    const json& value = *pending.back();
    pending.pop_back();
    if (value.is_binary() || value.is_discarded()) return false;
    if (value.is_number_float() && !std::isfinite(value.get<double>())) return false;
    if (value.is_structured()) {
      for (const json& element : value)
        pending.push_back(&element);
    }
  }
  return true;
}

// Why text is not JSON. The parse that builds values does not throw and so keeps no message; this second
// pass runs only on the failure path.
class ParseErrorReader : public nlohmann::json_sax<json> {
public:
  std::string message = "the text is not JSON";

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t, const std::string&, const json::exception& error) override {
    // The reader quotes what it last read; that is decrypted content and stays out of the log.
    message = error.what();
    if (const auto quote = message.find("; last read:"); quote != std::string::npos) message.erase(quote);
    return false;
  }
};

std::string parseErrorMessage(const QVData& text) {
  ParseErrorReader reader;
  json::sax_parse(text.begin(), text.end(), &reader);
  return reader.message;
}

} // namespace

std::optional<QVData> QVHandoffMessageCodec::dataFromJSONObject(const nlohmann::json& object,
                                                                const QVData& encryptedWithAES256Key) {
  if (!isValidMessage(object)) {
    QV_LOG_ERROR("Invalid JSON object {}", object.dump(-1, ' ', false, json::error_handler_t::replace));
    return std::nullopt;
  }
  std::string text;
  try {
    text = object.dump();
  } catch (const json::exception& error) {
    // Strings that are not UTF-8 have no JSON text.
    QV_LOG_ERROR("Couldn't serialize JSON object due {}", error.what());
    return std::nullopt;
  }
  auto encrypted =
      QVHandoffAES256Data::encryptWithKeyData(QVData(text.begin(), text.end()), encryptedWithAES256Key);
  if (!encrypted || encrypted->empty()) {
    QV_LOG_ERROR("Couldn't encrypt JSON data");
    return std::nullopt;
  }
  return encrypted;
}

std::optional<nlohmann::json>
QVHandoffMessageCodec::JSONObjectFromData(const QVData& data, const QVData& encryptedWithAES256Key) {
  const auto text = QVHandoffAES256Data::decryptWithKeyData(data, encryptedWithAES256Key);
  if (!text || text->empty()) {
    QV_LOG_ERROR("Couldn't decrypt JSON data");
    return std::nullopt;
  }
  json object = json::parse(text->begin(), text->end(), nullptr, false);
  if (object.is_discarded()) {
    QV_LOG_ERROR("Couldn't deserialize JSON object due {}", parseErrorMessage(*text));
    return std::nullopt;
  }
  if (!object.is_structured()) {
    QV_LOG_ERROR("Couldn't deserialize JSON object due {}", "a top level that is neither array nor object");
    return std::nullopt;
  }
  return object;
}

bool QVHandoffMessageCodec::isSuccessResponseData(const QVData& data, const QVData& encryptedWithAES256Key) {
  const auto object = JSONObjectFromData(data, encryptedWithAES256Key);
  if (!object || !object->is_array()) {
    // Also for an object that decrypted well: peers log this one line for every answer that is not a list.
    QV_LOG_ERROR("Couldn't decrypt success response data");
    return false;
  }
  if (object->empty()) return false;
  const json& last = object->back();
  return last.is_boolean() ? last.get<bool>() : last.is_number() && last != 0;
}

nlohmann::json QVHandoffMessageCodec::successMessage() {
  return json::array({true});
}
