#pragma once

#include "command.h"

extern const Command capture_command;
extern const Command cursor_command;
extern const Command heads_command;
extern const Command implementations_command;
extern const Command layout_command;

/* Prints a layout's heads on standard output: a table, or JSON where that was asked for. */
void print_heads (RyxDisplayLayout *layout);

/* The current layout, new; NULL with @error set. */
RyxDisplayLayout *get_layout (GError **error);
