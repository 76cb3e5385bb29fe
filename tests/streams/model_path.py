"""Makes the modules of tests/model known."""

import sys
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parents[1] / "model"))
