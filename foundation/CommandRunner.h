// Runs one shell command line and drains its standard output into the log.
#pragma once

// Whitespace other than the blank: a shell splits words at these too, and no
// command line of the daemon's own holds any of them.
inline constexpr char kOtherWhitespace[] = "\t\n\v\f\r";

// 0 when the command was started and its output drained (its exit status is
// never examined), -1 when it could not be started or was refused.
int execnetd(const char* command);

// True when `command` holds a character that a shell would treat as syntax
// (; | & $ ` < > ( ) \ ' ") or whitespace other than the blank (tab, newline,
// vertical tab, form feed, carriage return). No command line of the daemon's
// own contains one, so such a line can only come from text injected by a client.
bool commandHasShellSyntax(const char* command);

// True when `text` is at most one word: blanks may surround it but not split
// it, and it holds no other whitespace (a shell splits at a tab as well).
// Text put into a command line must be one argument, or its second word
// would become an argument of its own ("0x5A -j ACCEPT").
bool isOneWord(const char* text);
