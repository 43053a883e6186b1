"""What the trace keeps and shows at most."""

MAX_LINE = 4096         # bytes of one line in UTF-8, by the limits of lists and texts
MAX_REQUEST = 65536     # bytes of a request; a longer one is given up
MAX_WRITE = 2048        # bytes of a write
MAX_REPLY = 1024 * 1024  # bytes of a reply that are kept; one that needs more is given up
MAX_FRAME = 2048        # bytes of a notification frame
MAX_LOGIN = 512         # bytes of a hello and of its answer
MAX_CHUNK = 4096        # bytes of a chunk of values
MAX_TYPES = 16 * 1024 * 1024  # tags whose types are remembered; beyond, they are learnt anew
