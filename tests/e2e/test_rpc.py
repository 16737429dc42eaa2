"""The RPC interface as a client sees it that shares no code with the server."""

import re
import uuid

import pytest

from wine import BIN, ROOT
from wire import RESPONSE, Wire
from zel_client import (COPY_BITMAP, ERROR_FILE_NOT_FOUND, ERROR_INSUFFICIENT_BUFFER,
                        ERROR_MEDIA_CHANGED, ERROR_NO_MORE_ITEMS, ERROR_NOT_FOUND, LIST_FILES,
                        NO_CONTEXT, START_TRACKING2, Fault, marshal_list_files,
                        marshal_start_tracking2, read_tracked_files)

VOLUME = uuid.UUID("01234567-89ab-cdef-0123-456789abcdef")
PATH = "C:\\data\\f\u00efle"
BLOCK = 4096


@pytest.fixture
def client(rpc_server):
    with rpc_server.client() as connection:
        yield connection


def start(client, path=PATH, file_id=7, size=100_000, block_size=BLOCK):
    return client.start_tracking2(path, VOLUME, file_id, size, block_size)


def test_ping(client):
    assert client.ping() == 0


def test_start_tracking2_makes_a_bitmap(client):
    code, info = start(client)
    assert code == 0
    assert (info.file_size, info.block_size) == (512 + 4, BLOCK)
    assert (info.volume_guid, info.file_id) == (VOLUME, 7)
    assert info.bitmap_id != 0 and info.creation_time > 0x01D000000000000


def test_start_tracking2_refuses(client):
    assert start(client, size=4095)[0] == ERROR_INSUFFICIENT_BUFFER
    assert start(client)[0] == 0
    code, info = start(client, file_id=8)
    assert (code, info.bitmap_id) == (ERROR_MEDIA_CHANGED, 0)


def test_start_tracking_of_a_missing_file(client):
    assert client.start_tracking("C:\\missing", BLOCK)[0] == ERROR_FILE_NOT_FOUND


def test_block_size_of_0_faults_the_call_alone(client):
    with pytest.raises(Fault):
        start(client, block_size=0)
    assert client.ping() == 0


def test_list_files_to_its_end(client):
    paths = [f"C:\\{number:03}" for number in range(200)]
    for number, path in enumerate(paths):
        assert start(client, path, file_id=number + 1)[0] == 0
    context, listed = NO_CONTEXT, []
    while True:
        code, context, file_id, volume, path = client.list_files(context)
        if code != 0:
            break
        assert context != NO_CONTEXT and volume == VOLUME
        listed.append((path, file_id))
    assert (code, context, path) == (ERROR_NO_MORE_ITEMS, NO_CONTEXT, "")
    assert listed == [(path, number + 1) for number, path in enumerate(paths)]


@pytest.mark.parametrize("room", [1, 2, 3, 4, 7, 20, 21, 22, 23, 24, 65535])
def test_list_files_copies_half_of_the_room(client, room):
    start(client)
    code, _, _, _, path = client.list_files(NO_CONTEXT, room)
    copied = (PATH.encode("utf-16-le") + b"\0\0")[:room] + bytes(2)
    units = copied[:len(copied) & ~1].decode("utf-16-le", "surrogatepass")
    assert (code, path) == (0, "" if room == 1 else units.split("\0")[0])


def test_room_of_0_faults_the_call_alone(client):
    start(client)
    with pytest.raises(Fault):
        client.list_files(NO_CONTEXT, 0)
    with pytest.raises(Fault):
        client.list_bitmaps(VOLUME, 7, NO_CONTEXT, 0)
    assert client.ping() == 0


def test_list_bitmaps_to_its_end(client):
    infos = [start(client)[1] for _ in range(3)]
    context, listed = NO_CONTEXT, []
    for _ in infos:
        code, context, info, name = client.list_bitmaps(VOLUME, 7, context)
        assert code == 0
        expected = f"\\cbt\\{VOLUME}\\0000000000000007\\{info.creation_time:016x}00001000"
        assert name.endswith(expected)
        listed.append(info)
    assert listed == infos
    assert client.list_bitmaps(VOLUME, 7, context)[:2] == (ERROR_NO_MORE_ITEMS, NO_CONTEXT)


def test_bitmap_whose_name_does_not_fit_is_offered_again(client):
    start(client)
    code, context, info, name = client.list_bitmaps(VOLUME, 7, NO_CONTEXT, 20)
    assert (code, name) == (ERROR_INSUFFICIENT_BUFFER, "") and info.file_id == 7
    assert client.list_bitmaps(VOLUME, 7, context)[0] == 0


def test_stop_tracking(client):
    start(client)
    assert client.stop_tracking(PATH.upper().replace("\u00cf", "\u00ef")) == 0
    assert client.stop_tracking(PATH) == ERROR_FILE_NOT_FOUND
    assert client.list_bitmaps(VOLUME, 7, NO_CONTEXT)[0] == ERROR_NO_MORE_ITEMS


def test_delete_bitmap(client):
    info = start(client)[1]
    assert client.delete_bitmap(info.bitmap_id) == 0
    assert client.list_bitmaps(VOLUME, 7, NO_CONTEXT)[0] == ERROR_NO_MORE_ITEMS
    assert client.delete_bitmap(info.bitmap_id) == 0  # unknown now


def test_synchronize_and_driver_status(client):
    assert client.synchronize_bitmaps(2 ** 64 - 1) == 0
    assert client.get_driver_status() == 0


def test_copy_of_an_unknown_bitmap(client):
    assert client.copy_bitmap(0x123) == (ERROR_NOT_FOUND, [])


@pytest.mark.parametrize("length", [513, 65_535, 65_536, 65_537, 10 << 20])
def test_copy_of_a_bitmap_in_chunks(client, length):
    # The block size is as small as it can be to keep the other sizes small.
    code, info = start(client, size=(length - 512) * 8 * 512, block_size=512)
    assert (code, info.file_size) == (0, length)
    code, chunks = client.copy_bitmap(info.bitmap_id)
    assert code == 0
    whole, rest = divmod(length, 65_536)
    assert [len(chunk) for chunk in chunks] == [65_536] * whole + ([rest] if rest else [])
    contents = b"".join(chunks)
    assert contents[:8] == b"ZELb\0\2\x16\0" and contents[512:] == bytes(length - 512)


def test_no_tracked_files(client):
    assert client.get_tracked_files() == (0, bytes(4))


def test_tracked_files_with_their_bitmaps(client):
    infos = [start(client)[1] for _ in range(2)]
    start(client, "C:\\other", file_id=8)
    client.delete_bitmap(client.list_bitmaps(VOLUME, 8, NO_CONTEXT)[2].bitmap_id)
    code, stream = client.get_tracked_files()
    assert code == 0
    assert read_tracked_files(stream) == [
        (VOLUME, 7, PATH, [(i.file_size, i.creation_time, i.bitmap_id) for i in infos]),
        (VOLUME, 8, "C:\\other", []),
    ]


def test_documented_exchanges_are_the_servers(rpc_server):
    document = (ROOT / "docs" / "rpc-interface.md").read_text()
    dumps = []
    for offset, data in re.findall(r"^    (0[0-9a-f]{7})  ([0-9a-f ]+)$", document, re.MULTILINE):
        if offset == "00000000":
            dumps.append(b"")
        dumps[-1] += bytes.fromhex(data)
    start, started, copy, copied = dumps[1:]
    volume = uuid.UUID("8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e")
    assert start == marshal_start_tracking2("D:\\a", volume, 0x000300000001a2b4, 4095, 65_536)
    with Wire(rpc_server.port) as wire:
        assert wire.bind()
        assert wire.call(START_TRACKING2, start) == (RESPONSE, started)
        assert wire.call(COPY_BITMAP, copy) == (RESPONSE, copied)


@pytest.mark.parametrize("sequence", ["ncalrpc", "ncacn_np"])
def test_endpoint_mapper_knows_the_server(rpc_server, wine, sequence):
    """The project's own client, in another process, without an endpoint."""
    assert wine.run(str(BIN / "rpc_probe.exe"), sequence).stdout.split() == ["0", "0"]


@pytest.mark.parametrize("sequence", ["ncalrpc", "ncacn_ip_tcp", "ncacn_np"])
def test_own_client_calls_from_another_process(rpc_server, wine, sequence):
    answer = wine.run(str(BIN / "rpc_probe.exe"), sequence, rpc_server.endpoints[sequence])
    assert answer.stdout.split() == ["0", "0"]


def test_context_of_another_client_is_refused(client, rpc_server):
    start(client)
    start(client, "C:\\second", file_id=8)
    context = client.list_files(NO_CONTEXT)[1]
    with rpc_server.client() as other:
        with pytest.raises(Fault):
            other.call(LIST_FILES, marshal_list_files(context, 600))
        assert other.ping() == 0
    assert client.list_files(context)[0] == 0  # still its owner's


def test_enumerations_that_are_given_up_are_freed(client, rpc_server):
    for number in range(300):
        start(client, f"C:\\some\\longer\\path\\{number}", file_id=number + 1)

    def give_up(clients):
        for _ in range(clients):
            with Wire(rpc_server.port) as wire:
                assert wire.bind()
                for _ in range(100):
                    kind, answer = wire.call(LIST_FILES, marshal_list_files(NO_CONTEXT, 10))
                    assert kind == RESPONSE and answer.endswith(bytes(4))

    give_up(10)
    memory, files, _ = rpc_server.state()
    give_up(100)  # 10,000 lists: 300 MB, were they kept; 100 clients: a file each at least
    memory_after, files_after, _ = rpc_server.state()
    # The RPC runtime's pool of threads may have grown by some, each with files of its own.
    assert memory_after - memory < 30_000 and files_after - files < 50
