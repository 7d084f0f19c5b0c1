"""The tests of the harness itself: its folder holds the modules, its parent harness.py and the witness."""

import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.dirname(HERE)]
