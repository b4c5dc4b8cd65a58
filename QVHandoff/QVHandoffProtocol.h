// SPDX-License-Identifier: MIT
#pragma once
// What peers say to each other: DNS-SD names and TXT keys, request paths, message keys, query keys and
// headers. Client and server both spell the protocol through these names and nothing else.

#include <cstdint>

// DNS-SD and the client's requests.
/// Where services are published and browsed.
inline constexpr const char* QVHandoffServiceDomain = "local";
/// Seconds a peer's resolve may take before its record is dropped.
inline constexpr double QVHandoffServiceResolveTimeInterval = 30.0;
/// Tabs-list requests per TXT change of a peer; past them its record waits for the next change.
inline constexpr uint64_t QVHandoffTabsListRequestAttemptLimit = 3;
/// The content encoding of a body encrypted with the shared key, and what a client accepts.
inline constexpr const char* QVHandoffAES256ContentEncoding = "x-quorvel-aes256";
/// The content type of every JSON message, before encryption.
inline constexpr const char* QVHandoffJSONContentType = "application/json";

// The TXT record of the local server.
/// "1" while documents are open, else "0"; a peer fetches the tabs list only from a "1".
inline constexpr const char* QVHandoffServerHasOpenedDocumentsKey = "hasDocs";
/// The device type, as a decimal number.
inline constexpr const char* QVHandoffServerDeviceTypeKey = "deviceType";
/// The product name of the application.
inline constexpr const char* QVHandoffServerProductNameKey = "productName";
/// The time of the last change; a new mark makes peers fetch the tabs list again.
inline constexpr const char* QVHandoffServerDateMarkKey = "dateMark";

// Request paths and message keys.
/// The documents open on the server, as an encrypted JSON list (POST).
inline constexpr const char* QVHandoffTabsListRequestPath = "/api/tabs_list";
/// One of them, by its path: the encrypted file, for a handoff.
inline constexpr const char* QVHandoffHandoffDocumentRequestPath = "/api/handoff";
/// An edited copy, uploaded back to the device it came from.
inline constexpr const char* QVHandoffSaveBackRequestPath = "/api/save_back";
/// Tells the origin that its document has an edited copy on the caller's device.
inline constexpr const char* QVHandoffMarkAsModifiedFileRequestPath = "/api/mark_as_modified";
/// Asks the device that holds an edited copy to save it back now.
inline constexpr const char* QVHandoffForceRemoteSaveBackFileRequestPath = "/api/force_remote_save_back";
/// The fields of one document in a tabs list; `active` marks the server's active document.
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
/// The message keys of the handoff, mark-as-modified and force-save-back requests.
inline constexpr const char* QVHandoffHandoffDocumentFilePathKey = "filePath";
inline constexpr const char* QVHandoffMarkAsModifiedFileFilePathKey = "filePath";
inline constexpr const char* QVHandoffMarkAsModifiedFileRemoteFilePathKey = "remoteFilePath";
inline constexpr const char* QVHandoffMarkAsModifiedFileRemoteFileModificationDateKey =
    "remoteFileModificationDate";
inline constexpr const char* QVHandoffMarkAsModifiedFileRemoteDeviceNameKey = "remoteDeviceName";
inline constexpr const char* QVHandoffMarkAsModifiedFileRemoteDeviceTypeKey = "remoteDeviceType";
inline constexpr const char* QVHandoffForceRemoteSaveBackFileFilePathKey = "filePath";

// Query keys of a save back.
/// The query of a save back: the destination path, the file's size and date and where the reader was.
inline constexpr const char* QVHandoffSaveBackPathQueryKey = "path";
inline constexpr const char* QVHandoffSaveBackSizeQueryKey = "size";
inline constexpr const char* QVHandoffSaveBackModificationDateQueryKey = "modificationDate";
inline constexpr const char* QVHandoffSaveBackPageNumberQueryKey = "pageNumber";
inline constexpr const char* QVHandoffSaveBackPDFPointQueryKey = "pdfPoint";

// Headers.
/// The headers either side sets; the decoded length is the file's size before encryption.
inline constexpr const char* QVHandoffContentTypeHeader = "Content-Type";
inline constexpr const char* QVHandoffContentEncodingHeader = "Content-Encoding";
inline constexpr const char* QVHandoffAcceptEncodingHeader = "Accept-Encoding";
inline constexpr const char* QVHandoffLastModifiedHeader = "Last-Modified";
inline constexpr const char* QVHandoffDecodedContentLengthHeader = "X-Decoded-Content-Length";
