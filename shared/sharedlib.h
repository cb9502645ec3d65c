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
#include "platform/Types.h"

// text
#include "text/TextRoutines.h"
#include "text/XStr.h"
#include "text/CmdTables.h"
#include "text/HashT.h"

// thread
#include "thread/Semaphore.h"

// socket

// sockbuf

// server

// proxy

// media

// file

// expr
#include "expr/Expr.h"
#include "expr/ExprJoin.h"
#include "expr/ExprParser.h"
#include "expr/XArgument.h"

// services
