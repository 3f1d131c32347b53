// SPDX-License-Identifier: GPL-3.0-or-later
/* The names that the module takes from the server. scripts/build-samba-module.sh makes the table
 * and turns the module's references into weak ones: a server without one of the names still loads
 * the module, which then says so and refuses its clients. */
#ifndef TAVRIX_PRIVATE_SYMBOLS_H
#define TAVRIX_PRIVATE_SYMBOLS_H

struct tavrix_private_symbol {
  const char* name;
  const void* address; /* null: the server does not have it */
};
/* Ends with an entry without a name. */
extern const struct tavrix_private_symbol tavrix_private_symbols[];

#endif
