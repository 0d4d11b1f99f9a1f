#!/usr/bin/env python3
"""The smallest process of the device: answers each command under the name ECHO with its own words."""

import logging
import sys

import tess

logging.basicConfig(level=logging.INFO, format="%(message)s")
sys.exit(tess.Process("ECHO", lambda command: command).run())
