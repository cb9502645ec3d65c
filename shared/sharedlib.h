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
#include "platform/SockAddr.h"
#include "platform/ThreadApi.h"
#include "platform/Types.h"

// text
#include "text/BaseLogger.h"
#include "text/DebugOutput.h"
#include "text/TextRoutines.h"
#include "text/XStr.h"
#include "text/CmdTables.h"
#include "text/HashT.h"

// thread
#include "thread/Semaphore.h"
#include "thread/StmtQueue.h"
#include "thread/SVectorT.h"
#include "thread/Thread.h"
#include "thread/ThreadPool.h"
#include "thread/ThreadRegistry.h"

// socket
#include "socket/EPollWrapper.h"
#include "socket/FdCtrl.h"
#include "socket/KQueueWrapper.h"
#include "socket/PollWrapper.h"
#include "socket/SelectWrapper.h"
#include "socket/SendQueue.h"
#include "socket/SockEventsWrapper.h"
#include "socket/SocketCtrl.h"
#include "socket/SocketPrimitives.h"
#include "socket/TxtBuf_reg.h"

// sockbuf
#include "sockbuf/BufVectorReg.h"
#include "sockbuf/ISockBufOwner.h"
#include "sockbuf/ISockBuff.h"
#include "sockbuf/IndexStr.h"
#include "sockbuf/MWPacer.h"
#include "sockbuf/SockBufVect.h"
#include "sockbuf/SockBuf_defrag.h"
#include "sockbuf/SockBuf_reg.h"
#include "sockbuf/SockBuf_reg2.h"
#include "sockbuf/SockMWBuffs.h"
#include "sockbuf/SockUrl.h"

// server
#include "server/SockSrv.h"

// proxy

// media
#include "media/BinBuf.h"
#include "media/CLBuffer.h"
#include "media/CLSBuffer.h"
#include "media/JitterBuffer.h"
#include "media/MediaFrag.h"
#include "media/MediaJitterBuf.h"
#include "media/XJitterCtrl.h"

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
