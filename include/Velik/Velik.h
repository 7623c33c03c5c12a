// The whole public surface of libKivVelik in one include.
#pragma once

#include <Velik/Assert.h>
#include <Velik/Backtrace.h>
#include <Velik/BacktraceTracker.h>
#include <Velik/Debug.h>
#include <Velik/Errno.h>
#include <Velik/EventPriority.h>
#include <Velik/Exception.h>
#include <Velik/FastForward.h>
#include <Velik/FmtUtil.h>
#include <Velik/Fmtrace.h>
#include <Velik/HashMix.h>
#include <Velik/KivActivityLock.h>
#include <Velik/KivDebug.h>
#include <Velik/LibeventAdditions.h>
#include <Velik/LibeventFactory.h>
#include <Velik/Locking.h>
#include <Velik/Loco.h>
#include <Velik/Platform.h>
#include <Velik/Random.h>
#include <Velik/Thread.h>
#include <Velik/Time.h>
#include <Velik/Timeouts.h>
#include <Velik/TypeName.h>
#include <Velik/Util.h>
