"""Kinds of port, as bits: what a process registers for is a sum of them."""

COM2 = 1
TELNET = 2
XCP = 4
IPC = 8
PORTS_ALL = COM2 | TELNET | XCP | IPC
