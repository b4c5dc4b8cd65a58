// SPDX-License-Identifier: MIT
#include "Foundation/QVNotificationCenter.h"

#include <utility>

QVNotificationCenter& QVNotificationCenter::defaultCenter() {
  static QVNotificationCenter* shared = new QVNotificationCenter();
  return *shared;
}

QVNotificationCenter::Token QVNotificationCenter::addObserver(std::string name, const void* object,
                                                              Observer observer) {
  std::lock_guard lock(mutex_);
  const Token token = nextToken_++;
  entries_.push_back({token, std::move(name), object, std::make_shared<Observer>(std::move(observer))});
  return token;
}

void QVNotificationCenter::removeObserver(Token token) {
  std::lock_guard lock(mutex_);
  std::erase_if(entries_, [token](const Entry& entry) { return entry.token == token; });
}

void QVNotificationCenter::post(std::string name, const void* object, QVUserInfo userInfo) {
  // Observers run outside the lock: they may post or (un)register in turn.
  std::vector<std::shared_ptr<Observer>> matching;
  {
    std::lock_guard lock(mutex_);
    for (const Entry& entry : entries_) {
      if (entry.name == name && (entry.object == nullptr || entry.object == object)) {
        matching.push_back(entry.observer);
      }
    }
  }
  const QVNotification notification{std::move(name), object, std::move(userInfo)};
  for (const auto& observer : matching) {
    (*observer)(notification);
  }
}

QVNotificationObservation::QVNotificationObservation(QVNotificationCenter& center, std::string name,
                                                     const void* object,
                                                     QVNotificationCenter::Observer observer)
    : center_(&center), token_(center.addObserver(std::move(name), object, std::move(observer))) {}

QVNotificationObservation::QVNotificationObservation(QVNotificationObservation&& other) noexcept
    : center_(std::exchange(other.center_, nullptr)), token_(std::exchange(other.token_, 0)) {}

QVNotificationObservation& QVNotificationObservation::operator=(QVNotificationObservation&& other) noexcept {
  if (this != &other) {
    if (center_) center_->removeObserver(token_);
    center_ = std::exchange(other.center_, nullptr);
    token_ = std::exchange(other.token_, 0);
  }
  return *this;
}

QVNotificationObservation::~QVNotificationObservation() {
  if (center_) center_->removeObserver(token_);
}
