#include "run/set_table.h"

#include <cfloat>

#include "core/em.h"
#include "io/log.h"
#include "io/model_files.h"

namespace tarn {

SetTable::SetTable(std::size_t n_sets, int max_k_)
    : max_k(max_k_),
      best(n_sets + 1, -DBL_MAX),
      finished(n_sets + 1, 0),
      results(n_sets + 1, Estimate{0.0, 0.0, false, false, 0, nullptr}) {}

void update(SetTable* table, int sid, const Estimate& result) {
  if (!(is_usable_likelihood(result.log_likelihood) && result.log_likelihood > table->best[sid]))
    return;
  table->best[sid] = result.log_likelihood;
  std::fprintf(TARN_ERR, "Best likelihood updated for set id = %d.\n", sid);
  std::fflush(TARN_ERR);
  StateSpaceModel* holder = table->results[sid].model;
  if (holder == nullptr && !table->pool.empty()) {
    holder = table->pool.back();
    table->pool.pop_back();
  }
  if (holder == nullptr) {
    // A model that cannot be made throws std::bad_alloc; none is ever null.
    table->models.push_back(std::make_unique<StateSpaceModel>(result.model->p(), table->max_k));
    holder = table->models.back().get();
  }
  copy_model(*result.model, holder);
  table->results[sid] = result;
  table->results[sid].model = holder;
}

void finish_task(SetTable* table, const Args* args, const SSMData* data, int sid, int thread_num,
                 const Estimate& result, Workspace* work, Trajectory* state_store) {
  const int k = result.model->k();
  const int done = ++table->finished[sid];
  std::fprintf(TARN_ERR, "{%d} set=%d, dim=%d, likelihood=%f, loops=%d, finished=%d\n", thread_num,
               sid, k, result.log_likelihood, result.loops, done);
  update(table, sid, result);
  std::fflush(TARN_ERR);
  if (done != args->iterations) return;
  Estimate& set = table->results[sid];
  if (set.model == nullptr) {
    std::fprintf(TARN_ERR, "Estimation failed for this set.\n");
    std::fflush(TARN_ERR);
    return;
  }
  const OutputOptions out{args->prefix, args->suffix, args->each != 0, args->state != 0, TARN_ERR};
  const Status written = write_result_set(set, sid % args->sets + 1, *data, out, state_store, work);
  if (!written.ok()) tarn_fatal("%s\n", written.message().c_str());
  table->pool.push_back(set.model);
  set.model = nullptr;
}

}  // namespace tarn
