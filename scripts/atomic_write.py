"""Writing a file whole: the scripts' counterpart of the tools' temporary
file and rename (docs/atomic-writes.md)."""
import os


def write_atomically(path, data):
    """Writes bytes to path through path.tmp.<pid> and a rename, so that an
    interrupted run leaves the old file or the new one, never a part."""
    tmp = "%s.tmp.%d" % (path, os.getpid())
    try:
        with open(tmp, "wb") as f:
            f.write(data)
            f.flush()
            os.fsync(f.fileno())
        os.replace(tmp, path)
    except BaseException:
        if os.path.exists(tmp):
            os.unlink(tmp)
        raise
