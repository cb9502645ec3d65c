// CmdTables.h: the keyword tables of the product's protocols and
// configuration, and the searches over them.
//
// A table is an array of Cmd_str rows ended by a row whose name is "" and
// whose code is 0. Codes are unique within a table and never 0 in a real
// row; rows need not be in code order, and linear searches stop at the first
// match, so the row order is part of the contract.
//
// The tables are exported data, read-only, linked by name; any thread may
// search them. Look-ups answer 0 or null for anything unknown, null or empty.
// For hashed look-up on hot paths see Hash_cmd (text/HashT.h).
#pragma once

#include "platform/Export.h"

SHAREDLIB_BEGIN_C

// One row: a keyword and its code.
struct Cmd_str {
  char const *name;
  unsigned code;
};

// Code of the first row whose name equals name ignoring case; 0 when none,
// and for a null name or table.
SHAREDLIB_API int search_cmd_seq(char const *name, Cmd_str const *table);
// Name of the first row with that code; null when none or for code 0.
SHAREDLIB_API char const *search_cmd_code_seq(unsigned code, Cmd_str const *table);
// Direct access for tables whose row i (from 1) has code i: the name of row
// code when 1 <= code <= n and that row carries code; else null.
SHAREDLIB_API char const *search_cmd_code_vect(unsigned code, Cmd_str const *table, unsigned n);
// Rows before the terminator; 0 for a null or empty table.
SHAREDLIB_API int get_cmd_nregs(Cmd_str const *table);

// Named searches over the tables below.
SHAREDLIB_API int search_protocol(char const *name);
SHAREDLIB_API char const *search2_mediaclass(unsigned code);
SHAREDLIB_API int search_mediaset(char const *name);
// Row count of mediaSet_vet (1), not of mediaClass_vet: callers rely on it.
SHAREDLIB_API int get_nmediaclasses(void);
SHAREDLIB_API int search_portclass(char const *name);
SHAREDLIB_API int search_dbmsname(char const *name);
SHAREDLIB_API int search_servicename(char const *name);
SHAREDLIB_API int search_intservice(char const *name);
SHAREDLIB_API int search_xservice(char const *name);

// Transport protocols: TCP 1 ... H323 5.
SHAREDLIB_API extern Cmd_str const protocolType_vet[];
// Media classes; row i has code i (1..11), so search2_mediaclass works.
SHAREDLIB_API extern Cmd_str const mediaClass_vet[];
SHAREDLIB_API extern Cmd_str const mediaSet_vet[];
SHAREDLIB_API extern Cmd_str const mediaNotify_vet[];
SHAREDLIB_API extern Cmd_str const dbms_names[];
// Services 1-12 share one code space across these three tables.
SHAREDLIB_API extern Cmd_str const serviceName_vet[];
SHAREDLIB_API extern Cmd_str const intservice_vet[];
SHAREDLIB_API extern Cmd_str const xservice_vet[];
// Names of configured ports ("UsertPort" is the name the configurations use).
SHAREDLIB_API extern Cmd_str const cmd_ports_vet[];
// One-letter configuration keys.
SHAREDLIB_API extern Cmd_str const cmd_config[];
// Auto-update protocol commands, 1000-1012.
SHAREDLIB_API extern Cmd_str const autoupdcmd_vet[];
// Server protocol commands: 108 rows, codes 1000-1115 with gaps.
SHAREDLIB_API extern Cmd_str const srvcmd_vet[];

SHAREDLIB_END_C

// Media class by name, and its name by code (linear, on mediaClass_vet).
// Overloaded, so these two have C++ linkage.
SHAREDLIB_API int search_mediaclass(char const *name);
SHAREDLIB_API char const *search_mediaclass(unsigned code);
