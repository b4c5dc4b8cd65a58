// SPDX-License-Identifier: MIT
#pragma once
// Searches one DNS-SD service type in one domain and reports services as they come and go. Hold it in a
// std::shared_ptr: events reach the delegate on the main queue only while someone holds the browser.

#include <memory>
#include <string>

class QVDNSSDEngine;
class QVNetServiceBrowserDelegate;

class QVNetServiceBrowser : public std::enable_shared_from_this<QVNetServiceBrowser> {
public:
  // Searches through `engine`; the services it reports resolve through it too.
  explicit QVNetServiceBrowser(std::shared_ptr<QVDNSSDEngine> engine);
  ~QVNetServiceBrowser();
  QVNetServiceBrowser(const QVNetServiceBrowser&) = delete;
  QVNetServiceBrowser& operator=(const QVNetServiceBrowser&) = delete;

  std::shared_ptr<QVNetServiceBrowserDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QVNetServiceBrowserDelegate> delegate);

  // A new search replaces the running one; the services it found are forgotten without removal events.
  void searchForServicesOfType(const std::string& type, const std::string& domain);
  void stop();

private:
  struct State;
  std::unique_ptr<State> state_;
};
