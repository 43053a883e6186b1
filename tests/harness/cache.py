"""The module's cache tree, as far as tests clean it."""

import os

CACHE = "/tmp/vzbrowser"


def cache_folder(host):
    """The cache folder of a host text without special characters but ":"."""
    return os.path.join(CACHE, host.replace(":", "_"))
