#include "run/records.h"

namespace tarn {

EstimationRecords::EstimationRecords(const EmData& data, int k, int constrain_F)
    : working(std::make_unique<StateSpaceModel>(data.p(), k)),
      spare(std::make_unique<StateSpaceModel>(data.p(), k)),
      buffers(std::make_unique<EmBuffers>(data.p(), k, data.table().T, constrain_F != 0)),
      products(std::make_unique<BatchProducts>(data.p(), data.columns(), k, 1)) {}

}  // namespace tarn
