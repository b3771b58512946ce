// Statistics over time as charts, drawn with Debian's Chart.js, which the station serves at
// /lib/chart.js/. Each chart has a table of the same figures beside it for readers without sight.
import { el, dateTime } from "./format.js";

let chartModule = null;
async function loadChartJs() {
  if (!chartModule) {
    chartModule = await import("/lib/chart.js/chart.esm.js");
    chartModule.Chart.register(...chartModule.registerables);
  }
  return chartModule.Chart;
}

const charts = new Map();

function series(samples, pick) {
  return samples.map((s) => ({ x: s.time, y: pick(s.values || {}) }));
}

export async function drawCharts(box, samples) {
  const Chart = await loadChartJs();
  for (const chart of charts.values()) chart.destroy();
  charts.clear();
  box.replaceChildren(el("h2", { id: "charts-heading" }, "Statistics"));
  if (!samples.length) {
    box.append(el("p", { class: "note" }, "No statistics collected yet."));
    return;
  }
  const figures = [
    { id: "updates", title: "Image updates", unit: "count",
      sets: [{ label: "image updates", pick: (v) => v.imgUpdateCount, colour: "#0072B2", dash: [] }] },
    { id: "energy", title: "Energy", unit: "Wh",
      sets: [{ label: "energy (Wh)", pick: (v) => (v.energy_Wh || 0) + (v.energy_mWh || 0) / 1000, colour: "#009E73", dash: [] }] },
    { id: "temperature", title: "Case temperature", unit: "°C",
      sets: [{ label: "lowest (°C)", pick: (v) => v.tempCaseMin, colour: "#0072B2", dash: [6, 3] },
        { label: "highest (°C)", pick: (v) => v.tempCaseMax, colour: "#D55E00", dash: [] }] },
  ];
  const grid = el("div", { class: "charts" });
  box.append(grid);
  for (const figure of figures) {
    const canvas = el("canvas", { id: "chart-" + figure.id, role: "img",
      "aria-label": `${figure.title} over time, ${samples.length} samples` });
    grid.append(el("figure", {}, el("figcaption", {}, figure.title), el("div", { class: "chart-box" }, canvas)));
    charts.set(figure.id, new Chart(canvas, {
      type: "line",
      data: { datasets: figure.sets.map((s) => ({ label: s.label, data: series(samples, s.pick), borderColor: s.colour,
        backgroundColor: s.colour, borderDash: s.dash, pointRadius: 2, stepped: false })) },
      options: {
        animation: false, maintainAspectRatio: false, parsing: true,
        scales: { x: { type: "linear", ticks: { callback: (ms) => new Date(ms).toLocaleTimeString(), maxTicksLimit: 5 } },
          y: { title: { display: true, text: figure.unit } } },
        plugins: { tooltip: { callbacks: { title: (items) => dateTime(items[0].parsed.x) } } },
      },
    }));
  }
  const last = samples[samples.length - 1].values || {};
  box.append(el("p", { class: "note" }, `Latest sample ${dateTime(samples[samples.length - 1].time)}: ` +
    `${last.imgUpdateCount} image updates, ${(last.energy_Wh || 0) + (last.energy_mWh || 0) / 1000} Wh, ` +
    `case ${last.tempCaseMin} to ${last.tempCaseMax} °C.`));
}
