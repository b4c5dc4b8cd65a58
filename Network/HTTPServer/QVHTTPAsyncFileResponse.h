#pragma once
// A response that streams a file: each pull reads the next chunk from disk and hands it through
// processReadBuffer(), which a subclass overrides to transform it (encrypt it) before it goes out.
// Reading happens on the connection's own thread, which the server dedicates to that connection, so
// a slow disk delays only this transfer. Ranges are not supported: the file is always sent whole.

#include "Foundation/QVCFree.h"
#include "Foundation/QVTypes.h"
#include "Network/HTTPServer/QVHTTPResponse.h"

#include <cstdio>
#include <memory>
#include <string>

class QVHTTPConnection;

class QVHTTPAsyncFileResponse : public QVHTTPResponse {
public:
  // Check isValid(): a file that cannot be opened gives an invalid response.
  QVHTTPAsyncFileResponse(const std::string& filePath, const std::shared_ptr<QVHTTPConnection>& connection);
  ~QVHTTPAsyncFileResponse() override;

  bool isValid() const { return file_ != nullptr; }
  uint64_t contentLength() const override { return fileLength_; }
  std::optional<size_t> readData(uint8_t* buffer, size_t capacity) final;

  // Whether the whole body has been produced (and sent once nothing is pending).
  virtual bool isDone() const { return readOffset_ >= fileLength_; }

protected:
  // Called after each chunk has been read into readBuffer_. The default sends the chunk as it is.
  virtual void processReadBuffer();
  // Ends the body with an error: the connection is dropped.
  void abort();

  QVData readBuffer_;       // the chunk just read
  QVData dataReady_;        // what goes out next
  uint64_t readOffset_ = 0; // bytes of the file read so far
  uint64_t fileLength_ = 0;
  std::weak_ptr<QVHTTPConnection> connection_;

private:
  bool readNextChunk(size_t capacity);

  std::unique_ptr<std::FILE, QVCFree<&fclose>> file_;
  size_t dataReadyOffset_ = 0;
  bool aborted_ = false;
};
