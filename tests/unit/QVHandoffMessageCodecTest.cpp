// SPDX-License-Identifier: MIT
#include "QVHandoff/QVHandoffMessageCodec.h"
#include "QVHandoff/QVHandoffAES256Data.h"
#include "support/QVTestSupport.h"

#include <cmath>

using json = nlohmann::json;

class QVHandoffMessageCodecTest : public ::testing::Test {
protected:
  static QVData bytes(const std::string& text) { return QVData(text.begin(), text.end()); }
  // A body as a peer would send it, whatever its text.
  QVData bodyWithText(const std::string& text) {
    return *QVHandoffAES256Data::encryptWithKeyData(bytes(text), key_);
  }

  const QVData key_ = QVTestBytes(32, 11);
  QVLogCapture log_;
};

TEST_F(QVHandoffMessageCodecTest, MessagesTravelAsCompactEncryptedText) {
  const json object = {
      {"filePath", "/home/a/Report \u00fc.pdf"}, {"size", 12345}, {"list", {1, 2.5, nullptr}}};
  const auto body = QVHandoffMessageCodec::dataFromJSONObject(object, key_);
  EXPECT_EQ(QVHandoffAES256Data::decryptWithKeyData(body.value(), key_),
            bytes(R"({"filePath":"/home/a/Report ü.pdf","list":[1,2.5,null],"size":12345})"));
  for (const json& message : {object, json::array({object, "x", false})}) {
    const auto encoded = QVHandoffMessageCodec::dataFromJSONObject(message, key_);
    EXPECT_EQ(QVHandoffMessageCodec::JSONObjectFromData(encoded.value(), key_), message);
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(QVHandoffMessageCodecTest, SuccessIsAnArrayEndingInTruth) {
  const QVData success =
      QVHandoffMessageCodec::dataFromJSONObject(QVHandoffMessageCodec::successMessage(), key_).value();
  EXPECT_EQ(QVHandoffAES256Data::decryptWithKeyData(success, key_), bytes("[true]"));
  EXPECT_TRUE(QVHandoffMessageCodec::isSuccessResponseData(success, key_));
  EXPECT_TRUE(QVHandoffMessageCodec::isSuccessResponseData(bodyWithText("[false,2]"), key_));
  EXPECT_FALSE(QVHandoffMessageCodec::isSuccessResponseData(bodyWithText("[true,0.0]"), key_));
  EXPECT_FALSE(QVHandoffMessageCodec::isSuccessResponseData(bodyWithText("[]"), key_));
  EXPECT_TRUE(log_.lines().empty());

  EXPECT_FALSE(QVHandoffMessageCodec::isSuccessResponseData(success, QVTestBytes(32, 12)));
  EXPECT_TRUE(log_.contains("Couldn't decrypt JSON data", "error"));
  EXPECT_TRUE(log_.contains("Couldn't decrypt success response data", "error"));
  log_.clear();
  EXPECT_FALSE(QVHandoffMessageCodec::isSuccessResponseData(bodyWithText(R"({"ok":true})"), key_));
  EXPECT_EQ(log_.lines().size(), 1u);
  EXPECT_TRUE(log_.contains("Couldn't decrypt success response data", "error"));
}

TEST_F(QVHandoffMessageCodecTest, MalformedMessagesAreRefusedWithTheirLine) {
  // Neither array nor object at the top, and a number JSON has no text for.
  for (const json& invalid : {json("text"), json(42), json{{"x", {NAN}}}}) {
    EXPECT_EQ(QVHandoffMessageCodec::dataFromJSONObject(invalid, key_), std::nullopt);
  }
  EXPECT_TRUE(log_.contains("Invalid JSON object \"text\"", "error"));
  EXPECT_EQ(log_.count("Invalid JSON object"), 3u);
  EXPECT_EQ(QVHandoffMessageCodec::dataFromJSONObject({"\xff"}, key_), std::nullopt);
  EXPECT_TRUE(log_.contains("Couldn't serialize JSON object due", "error"));

  for (const char* text : {"{not json", "\"text\"", "[1] [2]", "[\"\xff\"]"}) {
    log_.clear();
    EXPECT_EQ(QVHandoffMessageCodec::JSONObjectFromData(bodyWithText(text), key_), std::nullopt) << text;
    EXPECT_TRUE(log_.contains("Couldn't deserialize JSON object due", "error")) << text;
    EXPECT_FALSE(log_.contains("not json")) << "decrypted text must not reach the log";
  }
  EXPECT_EQ(QVHandoffMessageCodec::JSONObjectFromData(QVData{}, key_), std::nullopt);
  EXPECT_TRUE(log_.contains("Couldn't decrypt JSON data", "error"));
}
