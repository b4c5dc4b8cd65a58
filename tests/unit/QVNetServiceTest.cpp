#include "Network/DNSSD/QVNetService.h"

#include <gtest/gtest.h>

#include <string>

namespace {

QVData bytes(const std::string& text) {
  return QVData(text.begin(), text.end());
}

} // namespace

TEST(QVNetServiceTest, TXTRecordDataIsTheWireFormatAndReadsBack) {
  const QVTXTRecordDictionary dictionary = {{"hasDocs", bytes("1")},
                                            {"productName", bytes("Paper Reader")},
                                            {"dateMark", bytes("2026-11-15T03:13:31.123")},
                                            {"blob", QVData{0x00, 0xff, '=', 0x01}}};
  const auto data = QVNetService::dataFromTXTRecordDictionary(dictionary);
  ASSERT_TRUE(data);
  // Length-prefixed "key=value" strings, in key order (RFC 6763, section 6).
  QVData expected;
  for (const std::string& entry :
       {std::string("blob=\x00\xff=\x01", 9), std::string("dateMark=2026-11-15T03:13:31.123"),
        std::string("hasDocs=1"), std::string("productName=Paper Reader")}) {
    expected.push_back(static_cast<uint8_t>(entry.size()));
    expected.insert(expected.end(), entry.begin(), entry.end());
  }
  EXPECT_EQ(*data, expected);
  EXPECT_EQ(QVNetService::dictionaryFromTXTRecordData(*data), dictionary);

  // An empty record is one empty string, which reads back as no entries.
  EXPECT_EQ(QVNetService::dataFromTXTRecordDictionary({}), QVData{0});
  EXPECT_TRUE(QVNetService::dictionaryFromTXTRecordData(QVData{0}).empty());
}

TEST(QVNetServiceTest, TXTRecordDictionaryRefusesEntriesThatCannotBeEncoded) {
  const std::string longest(255 - 2, 'v'); // "k=" + value fills one length byte exactly
  EXPECT_TRUE(QVNetService::dataFromTXTRecordDictionary({{"k", bytes(longest)}}));
  EXPECT_FALSE(QVNetService::dataFromTXTRecordDictionary({{"k", bytes(longest + "v")}}));
  EXPECT_FALSE(QVNetService::dataFromTXTRecordDictionary({{"", bytes("v")}}));
  EXPECT_FALSE(QVNetService::dataFromTXTRecordDictionary({{"a=b", bytes("v")}}));
  EXPECT_FALSE(QVNetService::dataFromTXTRecordDictionary({{"tab\there", bytes("v")}}));
}

TEST(QVNetServiceTest, TXTRecordDataFromPeersIsReadLeniently) {
  // A key without "=", an empty string, a repeated key, a value holding "=", a string without a key and
  // a last string cut short.
  const std::string wire = std::string("\x04") + "flag" + '\x00' + "\x07" + "hasDocs" + "\x09" + "hasDocs=1" +
                           "\x09" + "hasDocs=0" + "\x05" + "a=b=c" + "\x02" + "=x" + "\x09" + "cut";
  const auto dictionary = QVNetService::dictionaryFromTXTRecordData(bytes(wire));
  EXPECT_EQ(dictionary, (QVTXTRecordDictionary{{"flag", {}}, {"hasDocs", {}}, {"a", bytes("b=c")}}));
  EXPECT_TRUE(QVNetService::dictionaryFromTXTRecordData({}).empty());
}
