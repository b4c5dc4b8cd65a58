// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDConfiguration.h"

#include "support/QVTestSupport.h"

#include <cstdlib>

TEST(QVDNSSDConfigurationTest, EnvironmentGivesTheDefaults) {
  const auto saved = QVDNSSDConfiguration::current();
  QVLogCapture log;
  const auto read = [](const char* mode, const char* interfaces) {
    setenv("QVHANDOFF_DNSSD", mode, 1);
    setenv("QVHANDOFF_INTERFACES", interfaces, 1);
    return QVDNSSDConfiguration::fromEnvironment();
  };
  auto configuration = read("embedded", " veth0, qvd1a,,eth2 ");
  EXPECT_EQ(configuration.mode, QVDNSSDConfiguration::Mode::Embedded);
  EXPECT_EQ(configuration.interfaces, (std::vector<std::string>{"veth0", "qvd1a", "eth2"}));
  EXPECT_TRUE(configuration.hostName.empty());
  configuration = read("daemon", "");
  EXPECT_EQ(configuration.mode, QVDNSSDConfiguration::Mode::Daemon);
  EXPECT_TRUE(configuration.interfaces.empty());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(read("Embedded", "").mode, QVDNSSDConfiguration::Mode::Auto);
  EXPECT_TRUE(log.contains("Unknown QVHANDOFF_DNSSD value \"Embedded\", using auto", "warning"));
  unsetenv("QVHANDOFF_DNSSD");
  unsetenv("QVHANDOFF_INTERFACES");
  QVDNSSDConfiguration::setCurrent(saved);
}
