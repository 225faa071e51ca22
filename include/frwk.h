/**
 * @file frwk.h
 * The whole public interface of libfrwk, the runtime library of the device's daemons.
 *
 * Every header may also be included alone. All functions have C linkage, and unless a function says otherwise any
 * thread may call it at any time.
 */
#ifndef FRWK_H
#define FRWK_H

#include "frwk_defs.h"
#include "frwk_hash.h"
#include "frwk_ipc.h"
#include "frwk_list.h"
#include "frwk_module.h"
#include "frwk_start_conf.h"
#include "frwk_string.h"
#include "frwk_submodule.h"
#include "frwk_thread.h"
#include "frwk_time.h"
#include "frwk_timer.h"
#include "frwk_trace.h"
#include "frwk_xml.h"

#endif
