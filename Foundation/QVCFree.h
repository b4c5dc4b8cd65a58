// SPDX-License-Identifier: MIT
#pragma once
// The deleter that puts a C library's handle under a std::unique_ptr:
//   using QVCurlEasy = std::unique_ptr<CURL, QVCFree<&curl_easy_cleanup>>;

template <auto Free> struct QVCFree {
  template <class T> void operator()(T* handle) const noexcept {
    if (handle) Free(handle);
  }
};
