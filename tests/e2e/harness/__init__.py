"""What the end-to-end tests drive the daemon with: the program itself, its clients, and processes of the device."""
