-- Prints what wrk has found as one line of JSON. Without other functions wrk runs at its fastest.
done = function(summary, latency)
  local errors = summary.errors
  io.write(string.format(
    'RESULT {"requests": %d, "seconds": %f, "p50": %f, "p99": %f, "refused": %d, "broken": %d}\n',
    summary.requests, summary.duration / 1e6, latency:percentile(50), latency:percentile(99),
    errors.status, errors.connect + errors.read + errors.write + errors.timeout))
end
