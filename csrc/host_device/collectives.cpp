#include "collectives.h"

#include <torch/custom_class.h>
#include <torch/csrc/distributed/c10d/Work.hpp>

#include "stand_ins.h"

namespace quillon::host_device {
namespace {

using c10::ivalue::Future;

class DeviceWork final : public c10d::Work {
 public:
  DeviceWork(c10::intrusive_ptr<c10d::Work> inner, c10::Device device)
      : Work(-1, inner->retrieveOpType()), inner_(std::move(inner)), device_(device) {}

  bool isCompleted() override { return inner_->isCompleted(); }
  bool isSuccess() const override { return inner_->isSuccess(); }
  std::exception_ptr exception() const override { return inner_->exception(); }
  int sourceRank() const override { return inner_->sourceRank(); }
  void synchronize() override { inner_->synchronize(); }
  bool wait(std::chrono::milliseconds timeout) override { return inner_->wait(timeout); }
  void blockCurrentStream() override { inner_->wait(); }
  void abort() override { inner_->abort(); }
  float getDuration() const override { return inner_->getDuration(); }
  uint64_t getSequencenumber() const override { return inner_->getSequencenumber(); }
  c10::intrusive_ptr<Future> getFutureResult() override { return inner_->getFutureResult(); }

  std::vector<at::Tensor> result() override {
    std::vector<at::Tensor> results = inner_->result();
    for (at::Tensor& result : results) result = shown_tensor(result);
    return results;
  }

  c10::intrusive_ptr<Future> getFuture() override {
    const c10::intrusive_ptr<Future> done = inner_->getFuture();
    auto future = c10::make_intrusive<Future>(done->elementType(), std::vector<c10::Device>{device_});
    done->addCallback([future](Future& finished) {
      if (finished.hasError()) {
        future->setError(finished.exception_ptr());
        return;
      }
      c10::IValue value = finished.value();
      replace_tensors(value, shown_tensor);
      future->markCompleted(std::move(value));
    });
    return future;
  }

 private:
  const c10::intrusive_ptr<c10d::Work> inner_;
  const c10::Device device_;
};

}  // namespace

void return_work_to_device(c10::IValue& value, c10::DeviceIndex device) {
  using WorkPointer = c10::intrusive_ptr<c10d::Work>;
  if (!value.isObject() || value.type() != c10::getCustomClassType<WorkPointer>()) return;
  value =
      WorkPointer(c10::make_intrusive<DeviceWork>(value.toCustomClass<c10d::Work>(), c10::Device(c10::kXPU, device)));
}

}  // namespace quillon::host_device
