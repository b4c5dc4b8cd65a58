#include "Network/DNSSD/QVDNSSDConfiguration.h"

#include "support/QVTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// Sets the two variables for one scope and restores the configuration afterwards.
class Environment {
public:
  Environment(const char* mode, const char* interfaces) : saved_(QVDNSSDConfiguration::current()) {
    set("QVHANDOFF_DNSSD", mode);
    set("QVHANDOFF_INTERFACES", interfaces);
  }
  ~Environment() {
    unsetenv("QVHANDOFF_DNSSD");
    unsetenv("QVHANDOFF_INTERFACES");
    QVDNSSDConfiguration::setCurrent(saved_);
  }

private:
  static void set(const char* name, const char* value) {
    if (value) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  QVDNSSDConfiguration saved_;
};

} // namespace

TEST(QVDNSSDConfigurationTest, EnvironmentGivesTheDefaults) {
  {
    Environment environment("embedded", " veth0, qvd1a,,eth2 ");
    const auto configuration = QVDNSSDConfiguration::fromEnvironment();
    EXPECT_EQ(configuration.mode, QVDNSSDConfiguration::Mode::Embedded);
    EXPECT_EQ(configuration.interfaces, (std::vector<std::string>{"veth0", "qvd1a", "eth2"}));
    EXPECT_TRUE(configuration.hostName.empty());
  }
  {
    Environment environment("daemon", nullptr);
    EXPECT_EQ(QVDNSSDConfiguration::fromEnvironment().mode, QVDNSSDConfiguration::Mode::Daemon);
    EXPECT_TRUE(QVDNSSDConfiguration::fromEnvironment().interfaces.empty());
  }
  {
    QVLogCapture log;
    Environment environment("Embedded", "");
    EXPECT_EQ(QVDNSSDConfiguration::fromEnvironment().mode, QVDNSSDConfiguration::Mode::Auto);
    EXPECT_TRUE(log.contains("Unknown QVHANDOFF_DNSSD value \"Embedded\", using auto", "warning"));
  }
}
