// SPDX-License-Identifier: MIT
#pragma once
// Named notifications with an object and a userInfo, delivered synchronously on the posting thread.

#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffExport.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct QVHANDOFF_EXPORT QVNotification {
  std::string name;
  const void* object = nullptr; // identity of the sender (the manager), or none
  QVUserInfo userInfo;
};

class QVHANDOFF_EXPORT QVNotificationCenter {
public:
  using Observer = std::function<void(const QVNotification&)>;
  using Token = uint64_t;

  /// The process's one center; the library posts to it.
  static QVNotificationCenter& defaultCenter();

  /// `object` filters by sender; nullptr observes every sender.
  Token addObserver(std::string name, const void* object, Observer observer);
  /// An unknown token is ignored; a post under way on another thread may still call the observer once.
  void removeObserver(Token token);
  /// Calls every matching observer at once on this thread, outside the center's lock: an observer may post
  /// or (un)register in turn.
  void post(std::string name, const void* object, QVUserInfo userInfo = {});

private:
  struct Entry {
    Token token;
    std::string name;
    const void* object;
    std::shared_ptr<Observer> observer;
  };
  std::mutex mutex_;
  std::vector<Entry> entries_;
  Token nextToken_ = 1;
};

/// Removes its observer when it goes away.
class QVHANDOFF_EXPORT QVNotificationObservation {
public:
  QVNotificationObservation() = default;
  /// Observes as QVNotificationCenter::addObserver() does, until destroyed or assigned over.
  QVNotificationObservation(QVNotificationCenter& center, std::string name, const void* object,
                            QVNotificationCenter::Observer observer);
  QVNotificationObservation(QVNotificationObservation&& other) noexcept;
  QVNotificationObservation& operator=(QVNotificationObservation&& other) noexcept;
  ~QVNotificationObservation();

private:
  QVNotificationCenter* center_ = nullptr;
  QVNotificationCenter::Token token_ = 0;
};
