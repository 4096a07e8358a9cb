"""transformers' own server on a packed folder, started for real and asked by the openai client."""

from __future__ import annotations

import contextlib
import os
import pty
import select
import socket
import subprocess
import sys
import time
import urllib.error
import urllib.request
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
import torch

import quillon

transformers = pytest.importorskip("transformers", reason="the demo's packages are not installed: make demo")
openai = pytest.importorskip("openai", reason="the server's packages are not installed: requirements/test.txt")
pytest.importorskip("uvicorn", reason="the server's packages are not installed: requirements/test.txt")
pytest.importorskip("fastapi", reason="the server's packages are not installed: requirements/test.txt")

from small_models import random_model, save_tokenizer  # noqa: E402


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A packed model."""
    dense, packed = tmp_path_factory.mktemp("dense"), tmp_path_factory.mktemp("packed")
    random_model("llama", seed=14).save_pretrained(dense)  # whose answers are letters
    transformers.AutoModelForCausalLM.from_pretrained(
        dense, quantization_config=quillon.QuillonConfig("q4_0"), device_map="xpu:7"
    ).save_pretrained(packed)
    save_tokenizer(packed)
    return packed


@contextlib.contextmanager
def serving(folder: Path, log: Path, *options: str) -> Iterator[str]:
    """The address of a server that has the model."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    command = [sys.executable, "-m", "quillon", "transformers", "serve", str(folder), *options]
    command += ["--host", "127.0.0.1", "--port", str(port), "--device", "xpu"]
    environment = os.environ | {"HF_HUB_OFFLINE": "1", "QUILLON_HOST_DEVICES": "0"}
    with open(log, "wb") as output:
        process = subprocess.Popen(command, stdout=output, stderr=output, env=environment)
    try:
        for _ in range(600):
            assert process.poll() is None, log.read_text()
            try:
                with urllib.request.urlopen(f"http://127.0.0.1:{port}/health", timeout=5) as answer:
                    if answer.status == 200:
                        break
            except (urllib.error.URLError, OSError):
                time.sleep(0.2)
        else:
            raise AssertionError("the server did not come up: " + log.read_text())
        yield f"http://127.0.0.1:{port}/v1"
    finally:
        process.terminate()
        try:
            process.wait(30)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


@pytest.fixture(scope="module")
def server(folder: Path, tmp_path_factory: pytest.TempPathFactory) -> Iterator[str]:
    with serving(folder, tmp_path_factory.mktemp("log") / "server.log") as address:
        yield address


def test_a_conversation(server: str, folder: Path) -> None:
    client = openai.OpenAI(base_url=server, api_key="none")
    messages = [{"role": "user", "content": "hello"}]
    answer = client.chat.completions.create(model=str(folder), messages=messages, max_tokens=6)
    model = transformers.AutoModelForCausalLM.from_pretrained(folder, device_map="xpu:7")
    tokenizer = transformers.AutoTokenizer.from_pretrained(folder)
    tokens = tokenizer.apply_chat_template(messages, add_generation_prompt=True, return_tensors="pt")["input_ids"]
    with torch.inference_mode():
        produced = model.generate(tokens.to("xpu:7"), max_new_tokens=6, do_sample=False)[0, tokens.shape[1] :]
    assert answer.choices[0].message.content == tokenizer.decode(produced, skip_special_tokens=True)
    assert answer.choices[0].message.content.isalnum()
    assert answer.usage.completion_tokens == len(produced)

    pieces = client.chat.completions.create(model=str(folder), messages=messages, max_tokens=6, stream=True)
    streamed = "".join(piece.choices[0].delta.content or "" for piece in pieces if piece.choices)
    assert streamed == answer.choices[0].message.content


def test_a_conversation_in_a_terminal(server: str, folder: Path, tmp_path: Path) -> None:
    """Transformers' own chat, which asks a server, on a pseudo terminal."""
    client = openai.OpenAI(base_url=server, api_key="none")
    messages = [{"role": "user", "content": "hello"}]
    expected = client.chat.completions.create(model=str(folder), messages=messages, max_tokens=6)
    command = [sys.executable, "-m", "quillon", "transformers", "chat", str(folder), server]
    command += ["max_new_tokens=6", "do_sample=False", "--user", "tester", "--save-folder", str(tmp_path)]
    terminal, side = pty.openpty()
    environment = os.environ | {"TERM": "dumb", "COLUMNS": "200", "QUILLON_HOST_DEVICES": "0"}
    process = subprocess.Popen(command, stdin=side, stdout=side, stderr=side, env=environment)
    os.close(side)
    try:
        read_until(terminal, "<tester>")
        os.write(terminal, b"hello\n")
        shown = read_until(terminal, "6 tokens in ")
        os.write(terminal, b"n\n")  # the question whether to go on
        read_until(terminal, "<tester>")
        os.write(terminal, b"!exit\n")
        assert process.wait(60) == 0
    finally:
        process.kill()
        process.wait()
        os.close(terminal)
    assert expected.choices[0].message.content in shown


def test_many_users_at_once(folder: Path, tmp_path: Path) -> None:
    """Requests of different lengths get the texts together that each gets alone."""
    log = tmp_path / "server.log"
    # In float64 no road rounds to half, and how requests meet in batches, which is timing, changes no text.
    options = ["--continuous-batching", "--cb-num-blocks", "40", "--cb-max-batch-tokens", "64", "--dtype", "float64"]
    questions = ["".join(chr(97 + (7 * one + 3 * place) % 26) for place in range(2 + 3 * one)) for one in range(16)]
    with serving(folder, log, *options) as address:
        client = openai.OpenAI(base_url=address, api_key="none", max_retries=0, timeout=240)

        def ask(question: str) -> str:
            messages = [{"role": "user", "content": question}]
            answer = client.chat.completions.create(model=str(folder), messages=messages, max_tokens=6, temperature=0)
            return answer.choices[0].message.content

        alone = [ask(question) for question in questions]
        with ThreadPoolExecutor(len(questions)) as pool:
            together = list(pool.map(ask, questions))
    assert together == alone
    assert len(set(alone)) > 8, "the texts tell requests apart"
    assert log.read_text().count("CB: True") == 2 * len(questions)


def read_until(terminal: int, text: str) -> str:
    """What a terminal shows until a text is there."""
    shown, end = "", time.monotonic() + 240
    while text not in shown:
        assert time.monotonic() < end, shown
        if select.select([terminal], [], [], 1)[0]:
            try:
                shown += os.read(terminal, 4096).decode(errors="replace")
            except OSError:
                raise AssertionError(f"the program has ended: {shown}") from None
    return shown
