"""Tensors on the host device: making, copying, viewing, changing, saving and refusing them."""

from __future__ import annotations

import copy
import io
import pickle
from collections.abc import Callable
from typing import Any

import pytest
import torch

import quillon  # noqa: F401  (brings the device up)

DEVICE = torch.device("xpu:1")


def matrix() -> torch.Tensor:
    return torch.arange(6.0, device=DEVICE).view(2, 3)


@pytest.mark.parametrize(
    "make",
    [
        lambda device: torch.zeros(2, 3, device=device),
        lambda device: torch.ones(2, 3, dtype=torch.float16, device=device),
        lambda device: torch.full((2,), 7, device=device),
        lambda device: torch.arange(1, 10, 3, device=device),
        lambda device: torch.linspace(0, 1, 5, dtype=torch.float64, device=device),
        lambda device: torch.eye(3, dtype=torch.bfloat16, device=device),
        lambda device: torch.tensor([[1, 2], [3, 4]], dtype=torch.uint8, device=device),
        lambda device: torch.tensor([1 + 2j], device=device),
        lambda device: torch.scalar_tensor(3, device=device),
        lambda device: torch.tril_indices(3, 3, device=device),
        lambda device: torch.zeros(0, 4, device=device),
        lambda device: torch.ones(3, device=device).new_full((2, 2), 5),
        lambda device: torch.zeros_like(torch.ones(2, 2, device=device), dtype=torch.bool),
        lambda device: torch.as_tensor([1.5], device=device),
    ],
)
def test_factories(make: Callable[[Any], torch.Tensor]) -> None:
    made, expected = make(DEVICE), make("cpu")
    assert made.device == DEVICE
    assert made.is_xpu
    assert made.dtype == expected.dtype
    assert made.stride() == expected.stride()
    assert torch.equal(made.cpu(), expected)


def test_empty_obeys_layout() -> None:
    assert torch.empty(2, 3, 4, 5, device="xpu", memory_format=torch.channels_last).stride() == (60, 1, 15, 3)
    assert torch.empty_strided((2, 3), (1, 2), device=DEVICE).stride() == (1, 2)
    assert torch.empty(3, device="xpu").device == torch.device("xpu:0")


def test_memory_is_aligned() -> None:
    assert all(torch.empty(n, device="xpu").data_ptr() % 64 == 0 for n in (1, 17, 1000, 12345))


def test_copies_both_ways_and_between_devices() -> None:
    host = torch.randn(5, 7)
    here = host.to("xpu:0")
    there = here.to("xpu:3")
    assert (here.device.index, there.device.index) == (0, 3)
    assert torch.equal(there.cpu(), host)
    assert here.to("xpu:0") is here
    assert there.xpu(2).device.index == 2
    assert here.to(torch.float64).dtype == torch.float64
    back = torch.zeros(7, 5)
    back.copy_(there.t())
    assert torch.equal(back, host.t())
    there.copy_(torch.ones(7))
    assert torch.equal(there.cpu(), torch.ones(5, 7))
    assert torch.equal(host.to("xpu", non_blocking=True).to("cpu", non_blocking=True), host)
    assert here.data_ptr() != here.clone().data_ptr()


def test_copy_does_not_share_memory_with_the_host() -> None:
    host = torch.zeros(4)
    device = host.to("xpu")
    host.fill_(1)
    assert device.sum().item() == 0
    back = device.cpu()
    device.fill_(2)
    assert back.sum().item() == 0


@pytest.mark.parametrize(
    "view",
    [
        lambda x: x.view(3, 2),
        lambda x: x.reshape(-1),
        lambda x: x.t(),
        lambda x: x[1],
        lambda x: x[:, 1:],
        lambda x: x.unsqueeze(0).expand(4, 2, 3),
        lambda x: x.as_strided((2, 2), (1, 2), 1),
        lambda x: x.unfold(1, 2, 1),
        lambda x: x.split(1)[1],
        lambda x: x.permute(1, 0).flatten(0, 0),
        lambda x: x.detach(),
        lambda x: x.view(torch.int32),
        lambda x: x.diagonal(),
    ],
)
def test_views_share_memory(view: Callable[[torch.Tensor], torch.Tensor]) -> None:
    base = matrix()
    got, expected = view(base), view(base.cpu())
    assert got.device == DEVICE
    assert got.untyped_storage().data_ptr() == base.untyped_storage().data_ptr()
    assert (got.stride(), got.storage_offset()) == (expected.stride(), expected.storage_offset())
    assert torch.equal(got.cpu(), expected)
    base.zero_()
    assert not got.cpu().any()


def test_contiguous_of_a_transposed_view_copies() -> None:
    base = matrix()
    copied = base.t().contiguous()
    assert copied.is_contiguous()
    assert copied.data_ptr() != base.data_ptr()


def test_lazy_conjugation_and_negation() -> None:
    value = torch.tensor([1 + 2j, 3 - 4j], device=DEVICE)
    assert value.conj().is_conj()
    assert torch.equal(value.conj().cpu(), torch.tensor([1 - 2j, 3 + 4j]))
    assert torch.equal((value.conj() * 2).cpu(), torch.tensor([2 - 4j, 6 + 8j]))
    assert torch.equal(value.conj().imag.cpu(), torch.tensor([-2.0, 4.0]))
    assert torch.equal(torch.view_as_real(value).cpu(), torch.tensor([[1.0, 2.0], [3.0, -4.0]]))


def test_in_place() -> None:
    x = matrix()
    address, version = x.data_ptr(), x._version
    assert x.add_(1) is x
    assert x._version == version + 1
    x[0] = 9
    x[:, 1].mul_(2)
    x[x > 15] = -1
    torch.relu_(x)
    assert x.data_ptr() == address
    assert x.tolist() == [[9.0, 0.0, 9.0], [4.0, 10.0, 6.0]]


def test_out_argument() -> None:
    x = matrix()
    out = torch.empty(2, 3, device=DEVICE)
    address = out.data_ptr()
    assert torch.add(x, x, out=out) is out
    assert out.data_ptr() == address
    assert out[1, 2].item() == 10
    grown = torch.empty(0, device=DEVICE)
    torch.mm(x, x.t(), out=grown)
    assert grown.tolist() == [[5.0, 14.0], [14.0, 50.0]]
    values, indices = torch.empty(0, device=DEVICE), torch.empty(0, dtype=torch.int64, device=DEVICE)
    torch.max(x, 1, out=(values, indices))
    assert (values.tolist(), indices.tolist()) == ([2.0, 5.0], [2, 2])
    torch.mode(torch.tensor([[3.0, 1.0, 3.0], [4.0, 5.0, 5.0]], device=DEVICE), out=(values, indices))
    assert (values.tolist(), indices.tolist()) == ([3.0, 5.0], [2, 2])


def test_resize_and_set() -> None:
    x = matrix().clone()
    x.resize_(4, 4)
    assert x.shape == (4, 4)
    assert x.untyped_storage().nbytes() == 64
    assert x.flatten()[:6].tolist() == [0.0, 1.0, 2.0, 3.0, 4.0, 5.0]
    y = torch.empty(0, device=DEVICE)
    y.set_(x)
    assert y.data_ptr() == x.data_ptr()
    y.set_(x.untyped_storage(), 2, (2,), (3,))
    assert y.tolist() == [2.0, 5.0]
    y.set_(torch.arange(3.0, device=DEVICE).untyped_storage(), 1, (4,), (1,))  # grows the storage
    assert y.untyped_storage().nbytes() == 20
    assert y[:2].tolist() == [1.0, 2.0]
    y.set_()
    assert y.numel() == 0
    x.data = torch.ones(2, device=DEVICE)
    assert x.tolist() == [1.0, 1.0]


def test_indexing() -> None:
    x = matrix()
    assert x[torch.tensor([1]), torch.tensor([2])].tolist() == [5.0]  # indices may stay on the CPU
    assert x[torch.tensor([True, False], device=DEVICE)].tolist() == [[0.0, 1.0, 2.0]]
    assert x.index_select(1, torch.tensor([2, 0], device=DEVICE)).tolist() == [[2.0, 0.0], [5.0, 3.0]]
    x.index_put_((torch.tensor([0]),), torch.tensor(8.0))
    assert x[0].tolist() == [8.0, 8.0, 8.0]
    assert x.nonzero().device == DEVICE
    assert torch.gather(x, 1, torch.zeros(2, 1, dtype=torch.int64, device=DEVICE)).tolist() == [[8.0], [3.0]]


def test_several_results_that_share_memory() -> None:
    parts = torch.linalg.svd(torch.eye(4, device=DEVICE) * 2)
    assert all(part.device == DEVICE for part in parts)
    assert parts.S.tolist() == [2.0] * 4
    count = torch.unique(torch.tensor([3, 1, 3], device=DEVICE), return_counts=True)
    assert [t.tolist() for t in count] == [[1, 3], [1, 2]]


def test_operators_of_other_libraries_fall_back() -> None:
    for factor in (2, 3):  # a second library in the place of the first
        with torch.library._scoped_library("host_device_test", "FRAGMENT") as library:
            library.define("scale(Tensor x) -> Tensor" if factor == 2 else "scale(int n, Tensor[] x) -> Tensor[]")
            if factor == 2:
                library.impl("scale", lambda x: x * 2, "CPU")
                assert torch.ops.host_device_test.scale(matrix()).device == DEVICE
            else:
                library.impl("scale", lambda n, x: [item * n for item in x], "CPU")
                (result,) = torch.ops.host_device_test.scale(3, [matrix()])
                assert result.device == DEVICE
                assert result.sum().item() == 45


def test_missing_cpu_kernel_is_an_error() -> None:
    with pytest.raises(NotImplementedError, match="Could not run 'aten::_fused_dropout'"):
        torch._fused_dropout(matrix(), 0.5)


def test_scalars_and_printing() -> None:
    x = matrix()
    assert x.sum().item() == 15
    assert bool((x >= 0).all())
    assert int(x[1, 1]) == 4
    assert repr(x) == "tensor([[0., 1., 2.],\n        [3., 4., 5.]], device='xpu:1')"
    assert f"{x[0, 1]:.1f}" == "1.0"


def test_deepcopy_and_pickle() -> None:
    x = matrix()
    for other in (copy.deepcopy(x), pickle.loads(pickle.dumps(x))):
        assert other.device == DEVICE
        assert other.data_ptr() != x.data_ptr()
        assert torch.equal(other, x)
    pair = copy.deepcopy([x, x.view(-1)])
    assert pair[0].data_ptr() == pair[1].data_ptr()


@pytest.mark.parametrize(
    ("location", "expected"), [(None, "xpu:1"), ("xpu:4", "xpu:4"), ("xpu", "xpu:0"), ("cpu", "cpu")]
)
def test_save_and_load(location: str | None, expected: str) -> None:
    x = matrix()
    file = io.BytesIO()
    torch.save({"whole": x, "view": x[1]}, file)
    file.seek(0)
    loaded = torch.load(file, map_location=location)
    assert {str(t.device) for t in loaded.values()} == {expected}
    assert torch.equal(loaded["whole"].cpu(), x.cpu())
    assert loaded["view"].data_ptr() == loaded["whole"][1].data_ptr()


def test_module_state_travels() -> None:
    module = torch.nn.Sequential(torch.nn.Linear(3, 4), torch.nn.BatchNorm1d(4)).to(DEVICE)
    assert {p.device for p in module.state_dict().values()} == {DEVICE}
    file = io.BytesIO()
    torch.save(module.state_dict(), file)
    file.seek(0)
    other = torch.nn.Sequential(torch.nn.Linear(3, 4), torch.nn.BatchNorm1d(4))
    other.load_state_dict(torch.load(file, map_location="cpu"))
    x = torch.randn(5, 3)
    torch.testing.assert_close(module.eval()(x.to(DEVICE)).cpu(), other.eval()(x))


def test_storage() -> None:
    x = matrix()
    assert x.untyped_storage().device == DEVICE
    assert x.untyped_storage().cpu().device.type == "cpu"
    storage = torch.UntypedStorage(16, device="xpu:2")
    assert (storage.device.index, storage.nbytes()) == (2, 16)


def test_dlpack_shares_memory() -> None:
    x = matrix()
    other = torch.from_dlpack(x)
    assert other.device == DEVICE
    other.zero_()
    assert x.sum().item() == 0


def test_pinned_memory_and_data_loader() -> None:
    pinned = torch.ones(100).pin_memory()
    assert pinned.is_pinned()
    assert not torch.ones(100).is_pinned()
    assert pinned.to("xpu", non_blocking=True).sum().item() == 100
    dataset = torch.utils.data.TensorDataset(torch.arange(8.0))
    loader = torch.utils.data.DataLoader(dataset, batch_size=4, pin_memory=True)
    assert [batch[0].is_pinned() for batch in loader] == [True, True]
    with pytest.raises(RuntimeError, match="Only dense CPU tensors can be pinned"):
        torch.empty(3, device="xpu", pin_memory=True)


def test_numpy_is_refused() -> None:
    with pytest.raises(TypeError, match="can't convert xpu:1 device type tensor to numpy"):
        matrix().numpy()


@pytest.mark.parametrize(
    ("kind", "make"),
    [
        ("sparse", lambda: matrix().to_sparse()),
        ("sparse", lambda: matrix().to_sparse_csr()),
        ("sparse", lambda: torch.eye(3).to_sparse().to("xpu")),
        ("sparse", lambda: torch.sparse_coo_tensor([[0], [1]], [1.0], device="xpu")),
        ("sparse", lambda: torch.eye(3).to_sparse_csr().to("xpu") @ torch.eye(3, device="xpu")),
        ("quantized", lambda: torch.quantize_per_tensor(matrix(), 0.1, 0, torch.qint8)),
        ("quantized", lambda: torch.quantize_per_tensor(matrix().cpu(), 0.1, 0, torch.qint8).to("xpu")),
        ("nested", lambda: torch.nested.as_nested_tensor([matrix(), matrix()])),
    ],
)
@pytest.mark.filterwarnings("ignore")
def test_unsupported_kinds_say_so(kind: str, make: Callable[[], torch.Tensor]) -> None:
    with pytest.raises(NotImplementedError, match=rf"{kind} tensor.*quillon's host device"):
        make()
