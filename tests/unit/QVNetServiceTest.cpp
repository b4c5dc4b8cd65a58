// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVNetService.h"

#include "Foundation/QVMainQueue.h"
#include "Network/DNSSD/QVNetServiceBrowser.h"
#include "Network/DNSSD/QVNetServiceBrowserDelegate.h"
#include "Network/DNSSD/QVNetServiceDelegate.h"
#include "support/QVStandInNetService.h"

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

// Services and browsers reach DNS-SD only through the engine they were made with; its refusal reaches the
// delegate on the main queue, with the engine's code.
TEST(QVNetServiceTest, WorksThroughTheEngineItWasMadeWith) {
  struct Delegate : QVNetServiceDelegate, QVNetServiceBrowserDelegate {
    std::vector<int64_t> notPublished, notResolved, notSearched;
    static int64_t code(const QVUserInfo& error) {
      return std::get<int64_t>(error.at(QVNetServicesErrorCode));
    }
    void netServiceDidNotPublish(const std::shared_ptr<QVNetService>&, const QVUserInfo& error) override {
      notPublished.push_back(code(error));
    }
    void netServiceDidNotResolve(const std::shared_ptr<QVNetService>&, const QVUserInfo& error) override {
      notResolved.push_back(code(error));
    }
    void netServiceBrowserDidNotSearch(const std::shared_ptr<QVNetServiceBrowser>&,
                                       const QVUserInfo& error) override {
      notSearched.push_back(code(error));
    }
  };
  const auto engine = std::make_shared<QVStandInDNSSDEngine>();
  const auto delegate = std::make_shared<Delegate>();
  const auto published = std::make_shared<QVNetService>(engine, "", "_qvtest._tcp", "", 4000);
  const auto peer = std::make_shared<QVNetService>(engine, "local", "_qvtest._tcp", "Studio");
  const auto browser = std::make_shared<QVNetServiceBrowser>(engine);
  published->setDelegate(delegate);
  peer->setDelegate(delegate);
  browser->setDelegate(delegate);

  published->publish();
  peer->resolveWithTimeout(std::chrono::seconds(30));
  peer->startMonitoring();
  browser->searchForServicesOfType("_qvtest._tcp", "local");
  EXPECT_EQ(engine->requests, 4);

  const bool reported = QVMainQueue::main().runUntil(
      [&] {
        return !delegate->notPublished.empty() && !delegate->notResolved.empty() &&
               !delegate->notSearched.empty();
      },
      std::chrono::seconds(5));
  ASSERT_TRUE(reported);
  const std::vector<int64_t> once = {QVStandInDNSSDEngine::kError};
  EXPECT_EQ(delegate->notPublished, once);
  EXPECT_EQ(delegate->notResolved, once);
  EXPECT_EQ(delegate->notSearched, once);
}
