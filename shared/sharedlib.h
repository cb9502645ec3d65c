// sharedlib.h: the whole public interface of the library in one include.
//
// Users write #include <sharedlib.h> and link -lsharedlib. Every public
// header is listed here, grouped by subsystem folder.
#pragma once

// platform
#include "platform/Clock.h"
#include "platform/Compat.h"
#include "platform/Export.h"
#include "platform/PlatformInfo.h"
#include "platform/Readiness.h"
#include "platform/Types.h"

// text
#include "text/TextRoutines.h"
#include "text/XStr.h"
#include "text/CmdTables.h"
#include "text/HashT.h"

// thread
#include "thread/Semaphore.h"

// socket
#include "socket/EPollWrapper.h"
#include "socket/FdCtrl.h"
#include "socket/KQueueWrapper.h"
#include "socket/PollWrapper.h"
#include "socket/SelectWrapper.h"
#include "socket/SockEventsWrapper.h"
#include "socket/TxtBuf_reg.h"

// sockbuf

// server

// proxy

// media
#include "media/BinBuf.h"
#include "media/CLBuffer.h"
#include "media/CLSBuffer.h"

// file
#include "file/FilePrimitives.h"
#include "file/FileRead.h"

// expr
#include "expr/Expr.h"
#include "expr/ExprJoin.h"
#include "expr/ExprParser.h"
#include "expr/XArgument.h"

// services
#include "services/Adler32.h"
#include "services/Base64.h"
#include "services/CpuUsage.h"
#include "services/SHA1.h"
