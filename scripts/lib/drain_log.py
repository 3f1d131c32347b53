#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-3.0-or-later
"""Stands for the daemon of the system log: takes every message and keeps none. drain_log.py SOCKET"""
import os
import socket
import sys


def main():
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind(sys.argv[1])
    os.chmod(sys.argv[1], 0o666)
    while True:
        log.recv(65536)


if __name__ == "__main__":
    main()
