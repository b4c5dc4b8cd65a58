// SPDX-License-Identifier: MIT
#include "Network/DNSSD/QVDNSSDPublication.h"

#include "Foundation/QVLog.h"

#include <avahi-common/alternative.h>
#include <avahi-common/error.h>

#include <utility>

QV_LOG_SOURCE("DNSSD/QVDNSSDPublication")

namespace {
// A name taken inside the same engine is refused at once; bounded so that a broken engine cannot spin.
constexpr int kMaxLocalRenames = 50;
} // namespace

QVDNSSDPublication::QVDNSSDPublication(QVDNSSDBackend& backend, std::string name, std::string type,
                                       std::string domain, uint16_t port, QVData txt, Callbacks callbacks)
    : backend_(backend), name_(std::move(name)), type_(std::move(type)), domain_(std::move(domain)),
      port_(port), txt_(std::move(txt)), callbacks_(std::move(callbacks)) {
  backend_.addPublication(this);
  if (backend_.failed()) {
    fail(AVAHI_ERR_DISCONNECTED);
  } else if (backend_.running()) {
    add();
  }
}

QVDNSSDPublication::~QVDNSSDPublication() {
  backend_.removePublication(this);
  group_.reset(); // withdraws the service
}

void QVDNSSDPublication::add() {
  if (failed_ || added_) return;
  if (!group_) {
    int error = AVAHI_OK;
    group_ = backend_.newEntryGroup([this](AvahiEntryGroupState state) { groupStateChanged(state); }, error);
    if (!group_) {
      fail(error);
      return;
    }
  }
  if (name_.empty()) name_ = backend_.hostName();
  const QVAvahiStringList txt = QVAvahiStringListFromTXTData(txt_);
  int error = group_->addService(name_, type_, domain_, port_, txt.get());
  for (int renames = 0; error == AVAHI_ERR_COLLISION && renames < kMaxLocalRenames; ++renames) {
    const QVAvahiString alternative(avahi_alternative_service_name(name_.c_str()));
    QV_LOG_INFO("Service name \"{}\" is taken here, trying \"{}\"", name_, alternative.get());
    name_ = alternative.get();
    group_->reset();
    error = group_->addService(name_, type_, domain_, port_, txt.get());
  }
  if (error == AVAHI_OK) error = group_->commit();
  if (error != AVAHI_OK) {
    QV_LOG_ERROR("Couldn't add service \"{}\" of type {} ({})", name_, type_, QVAvahiErrorText(error));
    fail(error);
    return;
  }
  added_ = true;
}

void QVDNSSDPublication::groupStateChanged(AvahiEntryGroupState state) {
  switch (state) {
  case AVAHI_ENTRY_GROUP_ESTABLISHED:
    QV_LOG_DEBUG("Service \"{}\" of type {} established", name_, type_);
    callbacks_.established(name_);
    break;
  case AVAHI_ENTRY_GROUP_COLLISION: {
    // Someone on the network holds the name: take the next one and probe again with the same group.
    const QVAvahiString alternative(avahi_alternative_service_name(name_.c_str()));
    QV_LOG_INFO("Service name collision, renaming \"{}\" to \"{}\"", name_, alternative.get());
    name_ = alternative.get();
    group_->reset();
    added_ = false;
    add();
    break;
  }
  case AVAHI_ENTRY_GROUP_FAILURE: {
    const int error = backend_.lastError();
    QV_LOG_ERROR("Couldn't publish service \"{}\" of type {} ({})", name_, type_, QVAvahiErrorText(error));
    fail(error);
    break;
  }
  case AVAHI_ENTRY_GROUP_UNCOMMITED:
  case AVAHI_ENTRY_GROUP_REGISTERING:
    break;
  }
}

int QVDNSSDPublication::updateTXT(const QVData& txt) {
  txt_ = txt;
  if (!added_ || !group_) return AVAHI_OK;
  const QVAvahiStringList list = QVAvahiStringListFromTXTData(txt_);
  const int error = group_->updateServiceTXT(name_, type_, domain_, list.get());
  if (error != AVAHI_OK) {
    QV_LOG_ERROR("Couldn't update the TXT record of service \"{}\" ({})", name_, QVAvahiErrorText(error));
  }
  return error;
}

void QVDNSSDPublication::engineStateChanged(bool running) {
  if (running) {
    add();
  } else if (group_ && added_) {
    group_->reset();
    added_ = false;
  }
}

void QVDNSSDPublication::engineFailed(int error) {
  fail(error);
}

void QVDNSSDPublication::fail(int error) {
  if (failed_) return;
  failed_ = true;
  added_ = false;
  if (group_) group_->reset();
  callbacks_.failed(error);
}
