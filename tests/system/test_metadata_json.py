# SPDX-License-Identifier: MIT
"""The converter of the gateways, compared with one that reads the official schemas, on the documents of a stream of
every kind of metadata."""

import subprocess

import pytest

import jsonform
from client import header
from documents import EVENTS, PTZ, SCENE, SCHEMA_DIR
from installation import build_folder
from test_all_kinds import EVERY_KIND, EVERYTHING, kind_of, start_full_daemon  # noqa: F401

pytestmark = pytest.mark.skipif(not SCHEMA_DIR, reason="ONVIF_SCHEMA_DIR does not name the official schemas")

DOCUMENTS = 300


def read_documents(stream):
    """Reads so many documents, and more until every kind is among them."""
    documents, kinds = [], set()
    for document in stream.documents():
        documents.append(document)
        kinds.add(kind_of(document))
        if len(documents) >= DOCUMENTS and EVERY_KIND <= kinds:
            return documents


def converted(documents, folder):
    paths = []
    for number, document in enumerate(documents):
        paths.append(folder / f"{number}.xml")
        paths[-1].write_bytes(document.data)
    program = build_folder() / "tests/system/metadatajson/metadata-to-json"
    done = subprocess.run([program, *paths], capture_output=True, check=True, timeout=60)
    return [jsonform.parse(line) for line in done.stdout.decode().splitlines()]


def test_each_document_is_converted_as_the_schemas_say(start_full_daemon, tmp_path):  # noqa: F811
    daemon = start_full_daemon()
    with daemon.client() as client:
        documents = read_documents(client.start(header(**EVERYTHING)))

    texts = converted(documents, tmp_path)

    assert {document.kind for document in documents} == {EVENTS, PTZ, SCENE}
    assert texts == [text for document in documents for text in jsonform.convert(document.root)]
