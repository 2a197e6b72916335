"""python3 -m tarvo: call, send, serve and ping, as the command line tool does them, where that is not installed."""

import sys

from .cli import main

if __name__ == "__main__":
    sys.exit(main())
