# SPDX-License-Identifier: MIT
# The installed headers, in one list (paths from the source folder). A header outside it is private: a
# public header that includes one fails the installed-header check (cmake/QVHandoffCheckHeaders.cmake).
set(QVHANDOFF_PUBLIC_HEADERS
  QVHandoff/QVHandoff.h
  QVHandoff/QVHandoffExport.h
  QVHandoff/QVHandoffLog.h
  QVHandoff/QVHandoffManager.h
  QVHandoff/QVHandoffDocumentInfo.h
  QVHandoff/QVHandoffTransfer.h
  QVHandoff/QVHandoffPeerRegistry.h
  QVHandoff/QVHandoffPlatform.h
  QVHandoff/QVHandoffServerInfo.h
  QVHandoff/QVHandoffMetaStorage.h
  QVHandoff/QVHandoffDocumentMetaStorage.h
  QVHandoff/QVHandoffiCloudDocumentsPresenter.h
  QVHandoff/QVHandoffHTTPServer.h
  QVHandoff/QVHandoffProtocol.h
  Foundation/QVTypes.h
  Foundation/QVMainQueue.h
  Foundation/QVNotificationCenter.h
  Foundation/QVFileOperations.h
  Network/DNSSD/QVDNSSDConfiguration.h
  Network/DNSSD/QVNetService.h
  Network/DNSSD/QVNetServiceDelegate.h
  Network/DNSSD/QVNetServiceBrowserDelegate.h
  Network/HTTPServer/QVHTTPServer.h)

# Inside the source tree headers include each other from the source folder ("Foundation/QVTypes.h"); a host
# sees all of them under <QVHandoff/...>. Each header is staged with its includes rewritten, so the build
# tree and the installed tree give hosts the same include folder and nothing private is reachable.
set(QVHANDOFF_STAGED_INCLUDE_DIR ${CMAKE_CURRENT_BINARY_DIR}/include)

function(qvhandoff_staged_path header out)
  if(header MATCHES "^QVHandoff/")
    set(${out} ${header} PARENT_SCOPE)
  else()
    set(${out} QVHandoff/${header} PARENT_SCOPE)
  endif()
endfunction()

# Stages SOURCE (absolute) as include/STAGED and appends the staged path to the list named by LIST.
function(qvhandoff_stage_header _source _staged _list)
  add_custom_command(OUTPUT ${QVHANDOFF_STAGED_INCLUDE_DIR}/${_staged}
    COMMAND ${CMAKE_COMMAND} -DINPUT=${_source} -DOUTPUT=${QVHANDOFF_STAGED_INCLUDE_DIR}/${_staged}
            -P ${QVHANDOFF_CMAKE_DIR_OF_SOURCES}/QVHandoffStageHeader.cmake
    DEPENDS ${_source} ${QVHANDOFF_CMAKE_DIR_OF_SOURCES}/QVHandoffStageHeader.cmake
    COMMENT "Staging ${_staged}" VERBATIM)
  set(${_list} ${${_list}} ${QVHANDOFF_STAGED_INCLUDE_DIR}/${_staged} PARENT_SCOPE)
endfunction()
set(QVHANDOFF_CMAKE_DIR_OF_SOURCES ${CMAKE_CURRENT_LIST_DIR})

set(QVHANDOFF_STAGED_HEADERS)
foreach(header ${QVHANDOFF_PUBLIC_HEADERS})
  qvhandoff_staged_path(${header} staged)
  qvhandoff_stage_header(${CMAKE_CURRENT_SOURCE_DIR}/${header} ${staged} QVHANDOFF_STAGED_HEADERS)
endforeach()
set(QVHANDOFF_VERSION_HEADER ${CMAKE_CURRENT_BINARY_DIR}/generated/QVHandoff/QVHandoffVersion.h)
add_custom_command(OUTPUT ${QVHANDOFF_STAGED_INCLUDE_DIR}/QVHandoff/QVHandoffVersion.h
  COMMAND ${CMAKE_COMMAND} -E copy ${QVHANDOFF_VERSION_HEADER} ${QVHANDOFF_STAGED_INCLUDE_DIR}/QVHandoff/
  DEPENDS ${QVHANDOFF_VERSION_HEADER} VERBATIM)
list(APPEND QVHANDOFF_STAGED_HEADERS ${QVHANDOFF_STAGED_INCLUDE_DIR}/QVHandoff/QVHandoffVersion.h)
add_custom_target(QVHandoffPublicHeaders DEPENDS ${QVHANDOFF_STAGED_HEADERS})
