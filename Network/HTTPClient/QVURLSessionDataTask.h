#pragma once
// An HTTP request in flight.

class QVURLSessionDataTask {
public:
  virtual ~QVURLSessionDataTask() = default;
  // Stops the request; its completion reports the cancellation (code -999) on the main queue.
  virtual void cancel() = 0;
};
