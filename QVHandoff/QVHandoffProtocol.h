// SPDX-License-Identifier: MIT
#pragma once
// What peers say to each other: DNS-SD names and TXT keys, request paths, message keys, query keys and
// headers. Client and server both spell the protocol through these names and nothing else.

#include <cstdint>

// DNS-SD and the client's requests.
inline constexpr const char* QVHandoffServiceDomain = "local";
inline constexpr double QVHandoffServiceResolveTimeInterval = 30.0;
inline constexpr uint64_t QVHandoffTabsListRequestAttemptLimit = 3;
inline constexpr const char* QVHandoffAES256ContentEncoding = "x-quorvel-aes256";
inline constexpr const char* QVHandoffJSONContentType = "application/json";

// The TXT record of the local server.
inline constexpr const char* QVHandoffServerHasOpenedDocumentsKey = "hasDocs";
inline constexpr const char* QVHandoffServerDeviceTypeKey = "deviceType";
inline constexpr const char* QVHandoffServerProductNameKey = "productName";
inline constexpr const char* QVHandoffServerDateMarkKey = "dateMark";

// Request paths and message keys.
inline constexpr const char* QVHandoffTabsListRequestPath = "/api/tabs_list";
inline constexpr const char* QVHandoffHandoffDocumentRequestPath = "/api/handoff";
inline constexpr const char* QVHandoffSaveBackRequestPath = "/api/save_back";
inline constexpr const char* QVHandoffMarkAsModifiedFileRequestPath = "/api/mark_as_modified";
inline constexpr const char* QVHandoffForceRemoteSaveBackFileRequestPath = "/api/force_remote_save_back";
inline constexpr const char* QVHandoffTabsListFilePathKey = "filePath";
inline constexpr const char* QVHandoffTabsListFileContentTypeKey = "contentType";
inline constexpr const char* QVHandoffTabsListFileSizeKey = "fileSize";
inline constexpr const char* QVHandoffTabsListFileModificationDateKey = "fileModificationDate";
inline constexpr const char* QVHandoffTabsListICloudPathKey = "iCloudPath";
inline constexpr const char* QVHandoffTabsListDropboxPathKey = "dropboxPath";
inline constexpr const char* QVHandoffTabsListPageNumberKey = "pageNumber";
inline constexpr const char* QVHandoffTabsListPDFPointXKey = "pdfPointX";
inline constexpr const char* QVHandoffTabsListPDFPointYKey = "pdfPointY";
inline constexpr const char* QVHandoffTabsListActiveKey = "active";
inline constexpr const char* QVHandoffHandoffDocumentFilePathKey = "filePath";
inline constexpr const char* QVHandoffMarkAsModifiedFileFilePathKey = "filePath";
inline constexpr const char* QVHandoffMarkAsModifiedFileRemoteFilePathKey = "remoteFilePath";
inline constexpr const char* QVHandoffMarkAsModifiedFileRemoteFileModificationDateKey =
    "remoteFileModificationDate";
inline constexpr const char* QVHandoffMarkAsModifiedFileRemoteDeviceNameKey = "remoteDeviceName";
inline constexpr const char* QVHandoffMarkAsModifiedFileRemoteDeviceTypeKey = "remoteDeviceType";
inline constexpr const char* QVHandoffForceRemoteSaveBackFileFilePathKey = "filePath";

// Query keys of a save back.
inline constexpr const char* QVHandoffSaveBackPathQueryKey = "path";
inline constexpr const char* QVHandoffSaveBackSizeQueryKey = "size";
inline constexpr const char* QVHandoffSaveBackModificationDateQueryKey = "modificationDate";
inline constexpr const char* QVHandoffSaveBackPageNumberQueryKey = "pageNumber";
inline constexpr const char* QVHandoffSaveBackPDFPointQueryKey = "pdfPoint";

// Headers.
inline constexpr const char* QVHandoffContentTypeHeader = "Content-Type";
inline constexpr const char* QVHandoffContentEncodingHeader = "Content-Encoding";
inline constexpr const char* QVHandoffAcceptEncodingHeader = "Accept-Encoding";
inline constexpr const char* QVHandoffLastModifiedHeader = "Last-Modified";
inline constexpr const char* QVHandoffDecodedContentLengthHeader = "X-Decoded-Content-Length";
