#pragma once

#include "command.h"

extern const Command button_command;
extern const Command capture_command;
extern const Command cursor_command;
extern const Command heads_command;
extern const Command implementations_command;
extern const Command key_command;
extern const Command layout_command;
extern const Command motion_command;
extern const Command type_command;
extern const Command wheel_command;

/* Prints a layout's heads on standard output: a table, or JSON where that was asked for. */
void print_heads (RyxDisplayLayout *layout);

/* The current layout, new; NULL with @error set. */
RyxDisplayLayout *get_layout (GError **error);
