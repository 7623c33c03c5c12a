// The whole public surface of libKivVelik in one include.
#pragma once

#include <Velik/Assert.h>
#include <Velik/Debug.h>
#include <Velik/FmtUtil.h>
#include <Velik/Fmtrace.h>
#include <Velik/KivDebug.h>
#include <Velik/Time.h>
