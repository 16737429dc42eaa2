"""The worked example of docs/rpc-interface.md, a client in C, against the shipped service."""

from wine import rpc_client

OUTPUT = "C:\\data\\copy.bitmap"


def run(bench, bitmap_id, output=OUTPUT):
    """The exit code, and what it wrote; None for no file."""
    path = bench.agent.wine.path(output)
    path.unlink(missing_ok=True)
    ended = bench.agent.wine.run(*rpc_client("copy_bitmap.exe"), bitmap_id, output)
    return ended.returncode, path.read_bytes() if path.exists() else None


def test_example_copies_what_the_service_has(bench):
    bitmap_id = bench.track()
    bench.work(1)
    bench.zelctl.run("sync")
    with bench.agent.client() as client:
        code, chunks = client.copy_bitmap(int(bitmap_id, 16))
    assert code == 0
    assert run(bench, bitmap_id) == (0, b"".join(chunks))


def test_example_tells_the_services_answer_and_a_call_that_fails(bench):
    assert run(bench, "0x77") == (1, b"")
    assert run(bench, "0x77", "C:\\nowhere\\copy")[0] == 2
    bench.agent.stop()
    assert run(bench, "0x77") == (3, b"")
