// SPDX-License-Identifier: MIT
#pragma once
// Everything a host application needs: the manager, its records, the notification center and the main
// queue it runs on. Main-loop adapters have headers of their own (QVHandoffGLib.h, QVHandoffQt.h).

#include "Foundation/QVMainQueue.h"
#include "Foundation/QVNotificationCenter.h"
#include "Foundation/QVTypes.h"
#include "QVHandoff/QVHandoffDocumentInfo.h"
#include "QVHandoff/QVHandoffDocumentMetaStorage.h"
#include "QVHandoff/QVHandoffExport.h"
#include "QVHandoff/QVHandoffLog.h"
#include "QVHandoff/QVHandoffManager.h"
#include "QVHandoff/QVHandoffServerInfo.h"
#include "QVHandoff/QVHandoffiCloudDocumentsPresenter.h"
#include "QVHandoff/QVHandoffVersion.h"
