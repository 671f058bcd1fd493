#!/usr/bin/env python3
"""Runs one group of system test cases inside the device sandbox (run.py
starts it there); prints one "@result" line per case."""
import os
import sys

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, here)
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(here)), "scripts", "lib"))

import harness  # noqa: E402

sys.exit(harness.main_inside(["cases_frame", "cases_grants", "cases_containers",
                              "cases_manifest", "cases_restore", "cases_nvram", "cases_storage",
                              "cases_faults", "cases_attack"]))
