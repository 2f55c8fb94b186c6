"""Batch marking of many copies of one title on a Dask cluster."""
