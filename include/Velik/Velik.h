// The whole public surface of libKivVelik in one include.
#pragma once

#include <Velik/Assert.h>
#include <Velik/Backtrace.h>
#include <Velik/BacktraceTracker.h>
#include <Velik/ConstStringCache.h>
#include <Velik/Debug.h>
#include <Velik/Errno.h>
#include <Velik/Exception.h>
#include <Velik/FmtUtil.h>
#include <Velik/Fmtrace.h>
#include <Velik/HashMix.h>
#include <Velik/IntrusiveBookmarkLinkedList.h>
#include <Velik/IntrusiveLinkedListBase.h>
#include <Velik/KivDebug.h>
#include <Velik/Locking.h>
#include <Velik/Random.h>
#include <Velik/TaskSchedulerEventType.h>
#include <Velik/TaskSchedulerHistory.h>
#include <Velik/TaskTime.h>
#include <Velik/Thread.h>
#include <Velik/Time.h>
#include <Velik/TypeName.h>
#include <Velik/Util.h>
