// Draws the report's charts from the data the generator put in the page; runs offline.
'use strict';
(function () {
  const data = JSON.parse(document.getElementById('kesh-data').textContent);
  const height = 220;
  const drawn = [];
  const widthOf = (el) => Math.max(280, el.clientWidth);
  // Counts and rates start at zero, so that a small wobble does not look like a collapse.
  const fromZero = { auto: true, range: (u, min, max) => [0, max > 0 ? max * 1.08 : 1] };
  const shown = (digits, unit) => (u, v) => (v === null || v === undefined ? '–' : `${v.toFixed(digits)}${unit}`);
  const seconds = { label: 'second', value: (u, v) => (v === null ? '–' : `${v} s`) };
  // Bars stand on whole seconds: half a second of room either side keeps the first and last whole.
  const barSeconds = { time: false, range: (u, min, max) => [min - 0.5, max + 0.5] };
  const secondAxis = { label: 'seconds into the run', labelSize: 20 };

  function make(name, options, columns) {
    const el = document.querySelector(`[data-chart="${name}"]`);
    if (columns[0].length === 0) {
      el.innerHTML = '<p class="empty">no data</p>';
      return;
    }
    const plot = new uPlot({ width: widthOf(el), height, ...options }, columns, el);
    drawn.push({ plot, el });
  }

  const line = (label, stroke, digits, unit, extra) =>
    ({ label, stroke, width: 2, value: shown(digits, unit), spanGaps: false, ...extra });

  make('requests', {
    scales: { x: { time: false }, y: fromZero },
    axes: [secondAxis, { label: 'requests / s', labelSize: 20, size: 56 }],
    series: [seconds, line('requests / s', '#2563eb', 0, '', { fill: 'rgba(37, 99, 235, 0.12)' })],
  }, [data.t, data.requests]);

  // On a log scale a stall's p99 does not flatten p50 and p90 into the axis.
  make('latency', {
    scales: { x: { time: false }, y: { distr: 3 } },
    axes: [secondAxis, { label: 'ms', labelSize: 20, size: 56 }],
    series: [seconds, line('p50', '#16a34a', 2, ' ms'), line('p90', '#d97706', 2, ' ms'), line('p99', '#dc2626', 2, ' ms')],
  }, [data.t, data.p50, data.p90, data.p99]);

  make('errors', {
    scales: { x: barSeconds, y: fromZero },
    axes: [secondAxis, { label: 'errors / s', labelSize: 20, size: 56 }],
    series: [seconds, line('errors / s', '#c62828', 0, '', {
      fill: 'rgba(198, 40, 40, 0.55)', width: 1, paths: uPlot.paths.bars({ size: [0.7, 40] }), points: { show: false },
    })],
  }, [data.t, data.errors]);

  make('vusers', {
    scales: { x: { time: false }, y: fromZero },
    axes: [secondAxis, { label: 'Vusers', labelSize: 20, size: 56 }],
    series: [seconds, line('Vusers running', '#7c3aed', 0, '', {
      fill: 'rgba(124, 58, 237, 0.1)', paths: uPlot.paths.stepped({ align: 1 }),
    })],
  }, [data.t, data.vusers]);

  make('histogram', {
    scales: { x: { time: false, distr: 3 }, y: fromZero },
    axes: [{ label: 'latency (ms)', labelSize: 20 }, { label: 'requests', labelSize: 20, size: 56 }],
    series: [{ label: 'latency', value: shown(2, ' ms') }, line('requests', '#0e7490', 0, '', {
      fill: 'rgba(14, 116, 144, 0.5)', width: 1, paths: uPlot.paths.bars({ size: [0.9, 60] }), points: { show: false },
    })],
  }, [data.latency.ms, data.latency.counts]);

  window.addEventListener('resize', () => {
    for (const { plot, el } of drawn) plot.setSize({ width: widthOf(el), height });
  });
  // Tells a reader (and the browser test) that every chart that has data is drawn.
  document.body.dataset.charts = String(drawn.length);
})();
