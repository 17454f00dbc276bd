#include "run/records.h"

namespace tarn {

EstimationRecords::EstimationRecords(const DataSet* data, int k, int constrain_F)
    : working(std::make_unique<StateSpaceModel>(data->p, k)),
      spare(std::make_unique<StateSpaceModel>(data->p, k)),
      buffers(std::make_unique<EmBuffers>(data->p, k, data->T, constrain_F != 0)) {}

}  // namespace tarn
