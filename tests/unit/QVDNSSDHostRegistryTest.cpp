// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDHostRegistry.h"

#include <gtest/gtest.h>

TEST(QVDNSSDHostRegistryTest, HostNamesMatchWithoutCaseOrTrailingDot) {
  QVDNSSDHostRegistry::removeAll();
  QVDNSSDHostRegistry::setAddress("Desk-2.local.", "10.77.3.1");
  EXPECT_EQ(QVDNSSDHostRegistry::address("desk-2.local"), "10.77.3.1");
  EXPECT_EQ(QVDNSSDHostRegistry::address("DESK-2.LOCAL."), "10.77.3.1");
  EXPECT_FALSE(QVDNSSDHostRegistry::address("desk-2.local.."));
  EXPECT_FALSE(QVDNSSDHostRegistry::address("desk.local"));

  // A new resolve replaces the address; empty names or addresses are not recorded.
  QVDNSSDHostRegistry::setAddress("desk-2.local", "10.77.3.9");
  QVDNSSDHostRegistry::setAddress("", "10.77.3.2");
  QVDNSSDHostRegistry::setAddress("laptop.local", "");
  EXPECT_EQ(QVDNSSDHostRegistry::entries(),
            (std::map<std::string, std::string>{{"desk-2.local", "10.77.3.9"}}));
  QVDNSSDHostRegistry::removeAll();
  EXPECT_TRUE(QVDNSSDHostRegistry::entries().empty());
}
