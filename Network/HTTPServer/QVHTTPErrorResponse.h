// SPDX-License-Identifier: MIT
#pragma once
// A response with an error status and an empty body.

#include "Network/HTTPServer/QVHTTPDataResponse.h"

class QVHTTPErrorResponse : public QVHTTPDataResponse {
public:
  explicit QVHTTPErrorResponse(int status) : QVHTTPDataResponse({}), status_(status) {}
  int status() const override { return status_; }

private:
  int status_;
};
